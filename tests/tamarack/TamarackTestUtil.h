#pragma once
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "tamarack/Reference.h"

#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <vector>

using Tamarack::Attribute;
using Tamarack::Node;
using IntAttr = Tamarack::AttributeT<int>;
using Ints = std::vector<int>;

// Every value the CHANGE_ROLE listeners of one attribute see, in order.
template <typename A>
struct ValueLog
{
    explicit ValueLog(A &a) : attr(a) { a.addListener([this] { seen.push_back(attr.value()); }, Attribute::CHANGE_ROLE); }
    A &attr;
    std::vector<std::decay_t<decltype(std::declval<A &>().value())>> seen;
};

// Counts CHANGE_ROLE emissions, from any thread.
struct ChangeCount
{
    explicit ChangeCount(Attribute &a) { a.addListener([this] { ++n; }, Attribute::CHANGE_ROLE); }
    std::atomic<int> n{0};
};

// One 32-bit integer item, rewound for reading.
inline Kestrel::BinaryData intItem(int value) { Kestrel::BinaryData data; data.writeInt32(value); data.rewind(); return data; }
