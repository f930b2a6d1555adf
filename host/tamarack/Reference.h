#pragma once
#include "tamarack/tamarack_export.h"

#include <memory>

namespace Tamarack {

// Embedded in an object to be the target of weak references (e.g. the receiver of Event
// listeners). All weak() pointers share one control block and expire when the member is destroyed.
// A copy is a new identity: it shares nothing with the original.
class TAMARACK_EXPORT Reference
{
public:
    Reference();
    Reference(const Reference &);
    Reference &operator=(const Reference &);
    ~Reference();

    std::weak_ptr<void> weak() const { return m_self; }

private:
    std::shared_ptr<void> m_self; // owns nothing; exists for its control block
};

} // namespace Tamarack
