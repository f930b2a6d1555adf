#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/tamarack_export.h"

#include <functional>
#include <memory>

namespace Tamarack {

// Remembers listeners added through it and removes them again: per attribute on request, and all
// that remain when the holder is destroyed. An attribute deleted meanwhile is forgotten (the
// holder watches its DELETE_ROLE), so the holder never touches a deleted attribute.
//
// Threads: every operation may run on any thread at once, also from inside a listener. Adding to
// an attribute that is already in the middle of its deletion is not supported.
class TAMARACK_EXPORT ListenerHolder
{
public:
    ListenerHolder();
    ~ListenerHolder();
    ListenerHolder(const ListenerHolder &) = delete;
    ListenerHolder &operator=(const ListenerHolder &) = delete;

    // attribute->addListener(listener, role), remembered. Returns the listener id.
    long add(Attribute *attribute, const std::function<void()> &listener, int role);
    // Removes every listener held on that attribute.
    void removeListeners(Attribute *attribute);

private:
    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace Tamarack
