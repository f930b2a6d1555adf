#include "tamarack/ListenerHolder.h"

#include <map>
#include <mutex>
#include <vector>

namespace Tamarack {

// Shared with the DELETE_ROLE listeners that the holder puts on its attributes, so that one that
// runs after the holder is gone finds the state still there.
struct ListenerHolder::State
{
    struct Held
    {
        long deleteListener = 0;     // the holder's own, which forgets the attribute
        std::vector<long> listeners; // the caller's
    };

    // Held while calling removeListener on attributes: an attribute whose deletion reaches its
    // DELETE_ROLE listener waits here, so it is alive while the holder removes listeners from
    // it. Lock order: this mutex, then the attribute's listener lock.
    std::mutex mutex;
    std::map<Attribute *, Held> held; // guarded by mutex
};

namespace {

void removeAll(Attribute *attribute, const std::vector<long> &listeners, long deleteListener)
{
    for (long id : listeners)
        attribute->removeListener(id);
    attribute->removeListener(deleteListener);
}

} // namespace

ListenerHolder::ListenerHolder()
    : m_state(std::make_shared<State>())
{
}

ListenerHolder::~ListenerHolder()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const auto &entry : m_state->held)
        removeAll(entry.first, entry.second.listeners, entry.second.deleteListener);
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
    held.listeners.push_back(id);
    return id;
}

void ListenerHolder::removeListeners(Attribute *attribute)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    auto it = m_state->held.find(attribute);
    if (it == m_state->held.end())
        return;
    removeAll(attribute, it->second.listeners, it->second.deleteListener);
    m_state->held.erase(it);
}

} // namespace Tamarack
