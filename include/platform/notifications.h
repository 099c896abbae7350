// Named notifications: a center that delivers synchronously to its observers, and the per-thread
// queue that defers a notification to the end of the current run-loop pass (or work item),
// collapsing those of the same name and sender that are still waiting.
#pragma once

#include <any>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quenby::platform {

// A string-keyed dictionary of values of any copyable type (model objects, numbers, arrays).
class UserInfo {
  public:
    template <class T>
    UserInfo& set(const std::string& key, T value) {
        values_[key] = std::move(value);
        return *this;
    }
    // The value under `key` when it holds a T; null otherwise.
    template <class T>
    const T* get(const std::string& key) const {
        auto it = values_.find(key);
        return it == values_.end() ? nullptr : std::any_cast<T>(&it->second);
    }
    bool contains(const std::string& key) const { return values_.count(key) != 0; }
    std::vector<std::string> keys() const;
    const std::map<std::string, std::any>& values() const { return values_; }

  private:
    std::map<std::string, std::any> values_;
};

struct Notification {
    std::string name;
    const void* sender = nullptr;  // identity only; never dereferenced
    UserInfo userInfo;
};

class NotificationCenter {
  public:
    using Callback = std::function<void(const Notification&)>;
    using ObserverId = std::uint64_t;

    // The process-wide center that the library's layers post to and observe.
    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // Observes `name` (every name when empty) from `sender` (any sender when null). Any thread.
    ObserverId addObserver(std::string name, const void* sender, Callback cb);
    // After return no new delivery starts; one already running on another thread may finish,
    // which is why callbacks hold their owners weakly.
    void removeObserver(ObserverId id);
    // Delivers synchronously on the calling thread, in the order observers were added.
    void post(const Notification& n);

  private:
    struct Observer {
        ObserverId id;
        std::string name;
        const void* sender;
        std::shared_ptr<Callback> cb;
    };
    std::mutex mu_;
    ObserverId next_ = 1;              // guarded by mu_
    std::vector<Observer> observers_;  // guarded by mu_
};

// The calling thread's notification queue (as-soon-as-possible posting style, coalesced by name
// and by sender). Threads that run a run loop or queue tasks deliver at the end of the current
// pass or task; on any other thread there is no pass to wait for, so the post happens at once.
class NotificationQueue {
  public:
    static NotificationQueue& defaultQueue();

    // Queues `n` for `center` unless a notification of the same name and sender for the same
    // center is already waiting, in which case `n` is dropped: the first one is delivered.
    void enqueueNotification(Notification n,
                             NotificationCenter& center = NotificationCenter::defaultCenter());
    bool hasPending() const { return !pending_.empty(); }
    // Delivers what is queued, including what delivery itself queues.
    void flush();

    // Marks the calling thread as one that ends passes or work items (and so delivers later).
    static void markThreadDeferring();
    // Bracket one pass or work item; the outermost end delivers the thread's queue.
    static void beginWorkItem();
    static void endWorkItem();

  private:
    struct Pending {
        Notification n;
        NotificationCenter* center;
    };
    std::deque<Pending> pending_;  // thread-confined
};

// RAII bracket for NotificationQueue::beginWorkItem/endWorkItem.
class WorkItemScope {
  public:
    WorkItemScope() { NotificationQueue::beginWorkItem(); }
    ~WorkItemScope() { NotificationQueue::endWorkItem(); }
    WorkItemScope(const WorkItemScope&) = delete;
    WorkItemScope& operator=(const WorkItemScope&) = delete;
};

}  // namespace quenby::platform
