#pragma once
#include "tamarack/tamarack_export.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Tamarack {

// A typed event with weak receivers. A listener runs only while its receiver is alive; the
// receiver is held for the duration of each call. An empty receiver counts as expired.
//
// Costs one null pointer until the first addListener, which makes the state by a CAS so that
// racing first callers agree.
//
// Threads: every operation may run on any thread at once, also from inside a listener. While an
// emission runs the main list is never changed: new listeners wait in a second list and are merged
// when the last running emission ends (they are not called by emissions already running), and
// removals only clear the entries' active flags. Listeners run with no lock held.
template <typename T>
class TAMARACK_EXPORT Event
{
public:
    Event() = default;
    ~Event() { delete m_state.load(std::memory_order_acquire); }
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;

    void addListener(std::weak_ptr<void> receiver, std::function<void(T)> listener)
    {
        State &s = state();
        auto entry = std::make_shared<Entry>(std::move(receiver), std::move(listener));
        std::lock_guard<std::mutex> lock(s.mutex);
        entry->id = s.nextId++;
        if (s.depth > 0) {
            s.added.push_back(std::move(entry));
            s.hasAdded = true;
        } else {
            s.listeners.push_back(std::move(entry));
        }
    }

    // Removes every listener whose receiver shares the control block of the given one; returns how
    // many were removed.
    int removeListeners(const std::weak_ptr<void> &receiver)
    {
        State *s = m_state.load(std::memory_order_acquire);
        if (!s)
            return 0;
        std::lock_guard<std::mutex> lock(s->mutex);
        int removed = 0;
        auto sameOwner = [&receiver](const std::shared_ptr<Entry> &e) {
            return !e->receiver.owner_before(receiver) && !receiver.owner_before(e->receiver);
        };
        if (s->depth > 0) {
            for (const auto &e : s->listeners)
                if (sameOwner(e) && e->active.exchange(false))
                    ++removed;
        } else {
            removed += eraseIf(s->listeners, [&](const std::shared_ptr<Entry> &e) {
                return sameOwner(e) && e->active.load();
            });
            eraseIf(s->listeners, [](const std::shared_ptr<Entry> &e) { return !e->active.load(); });
        }
        // The second list is never iterated by an emission.
        removed += eraseIf(s->added, sameOwner);
        s->hasAdded = !s->added.empty();
        return removed;
    }

    void raise(T value)
    {
        State *s = m_state.load(std::memory_order_acquire);
        if (!s)
            return;
        std::size_t count;
        {
            std::lock_guard<std::mutex> lock(s->mutex);
            ++s->depth;
            count = s->listeners.size();
        }
        struct EndOfEmission
        {
            State *s;
            ~EndOfEmission() { finishEmission(*s); }
        } end{s};
        // The vector is not resized while depth > 0, so it can be read here without the mutex.
        for (std::size_t i = 0; i < count; ++i) {
            Entry &entry = *s->listeners[i];
            if (!entry.active.load(std::memory_order_acquire))
                continue;
            std::shared_ptr<void> alive = entry.receiver.lock();
            if (alive)
                entry.listener(value);
        }
    }

private:
    struct Entry
    {
        Entry(std::weak_ptr<void> r, std::function<void(T)> l) : receiver(std::move(r)), listener(std::move(l)) {}
        std::weak_ptr<void> receiver;
        std::function<void(T)> listener;
        std::atomic<bool> active{true};
        long id = 0;
    };
    struct State
    {
        std::mutex mutex;
        std::vector<std::shared_ptr<Entry>> listeners; // resized only while depth == 0
        std::vector<std::shared_ptr<Entry>> added;     // added during an emission
        bool hasAdded = false;
        int depth = 0;                                 // running emissions
        long nextId = 0;
    };

    template <typename Pred>
    static int eraseIf(std::vector<std::shared_ptr<Entry>> &list, Pred pred)
    {
        const std::size_t before = list.size();
        std::vector<std::shared_ptr<Entry>> kept;
        kept.reserve(list.size());
        for (auto &e : list)
            if (!pred(e))
                kept.push_back(std::move(e));
        list.swap(kept);
        return static_cast<int>(before - list.size());
    }

    static void finishEmission(State &s)
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (--s.depth > 0)
            return;
        eraseIf(s.listeners, [](const std::shared_ptr<Entry> &e) {
            return !e->active.load() || e->receiver.expired();
        });
        if (s.hasAdded) {
            for (auto &e : s.added)
                s.listeners.push_back(std::move(e));
            s.added.clear();
            s.hasAdded = false;
        }
    }

    State &state()
    {
        State *current = m_state.load(std::memory_order_acquire);
        if (current)
            return *current;
        auto *made = new State;
        if (m_state.compare_exchange_strong(current, made, std::memory_order_acq_rel))
            return *made;
        delete made;
        return *current;
    }

    std::atomic<State *> m_state{nullptr};
};

} // namespace Tamarack
