#include "tamarack/ListenerHolder.h"

#include <mutex>
#include <unordered_map>
#include <vector>

namespace Tamarack {

// Shared with the DELETE_ROLE listeners that the holder puts on its attributes, so that one that
// runs after the holder is gone finds the state still there.
struct ListenerHolder::State
{
    // The caller's listeners are `first`, then `more`: most attributes get exactly one.
    struct Held
    {
        long deleteListener = 0; // the holder's own, which forgets the attribute
        long first = 0;          // 0 for none
        std::vector<long> more;
    };

    // Held while calling removeListener on attributes: an attribute whose deletion reaches its
    // DELETE_ROLE listener waits here, so it is alive while the holder removes listeners from
    // it. Lock order: this mutex, then the attribute's listener lock.
    std::mutex mutex;
    std::unordered_map<Attribute *, Held> held; // guarded by mutex

    static void removeAll(Attribute *attribute, const Held &held)
    {
        if (held.first)
            attribute->removeListener(held.first);
        for (long id : held.more)
            attribute->removeListener(id);
        attribute->removeListener(held.deleteListener);
    }
};

ListenerHolder::ListenerHolder()
    : m_state(std::make_shared<State>())
{
}

ListenerHolder::~ListenerHolder()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const auto &entry : m_state->held)
        State::removeAll(entry.first, entry.second);
    m_state->held.clear();
}

long ListenerHolder::add(Attribute *attribute, const std::function<void()> &listener, int role)
{
    if (!attribute)
        return 0;
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Held &held = m_state->held[attribute];
    if (held.deleteListener == 0) {
        std::weak_ptr<State> weak = m_state;
        // Runs on the thread that deletes the attribute, before its listeners are freed.
        held.deleteListener = attribute->addListener([weak, attribute] {
            if (std::shared_ptr<State> state = weak.lock()) {
                std::lock_guard<std::mutex> lock(state->mutex);
                state->held.erase(attribute);
            }
        }, Attribute::DELETE_ROLE);
    }
    const long id = attribute->addListener(listener, role);
    if (!held.first)
        held.first = id;
    else
        held.more.push_back(id);
    return id;
}

void ListenerHolder::removeListeners(Attribute *attribute)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    auto it = m_state->held.find(attribute);
    if (it == m_state->held.end())
        return;
    State::removeAll(attribute, it->second);
    m_state->held.erase(it);
}

} // namespace Tamarack
