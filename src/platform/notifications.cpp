#include "platform/notifications.h"

#include <algorithm>

namespace quenby::platform {

namespace {
thread_local bool tlDeferring = false;  // the thread ends passes or work items
thread_local int tlWorkDepth = 0;       // nesting of passes / work items on this thread
}  // namespace

std::vector<std::string> UserInfo::keys() const {
    std::vector<std::string> out;
    out.reserve(values_.size());
    for (const auto& [k, v] : values_) out.push_back(k);
    return out;
}

NotificationCenter& NotificationCenter::defaultCenter() {
    // Leaked on purpose: observers may still be removed from static destructors of the host.
    static auto* center = new NotificationCenter();
    return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(std::string name, const void* sender,
                                                               Callback cb) {
    std::lock_guard lk(mu_);
    ObserverId id = next_++;
    observers_.push_back({id, std::move(name), sender, std::make_shared<Callback>(std::move(cb))});
    return id;
}

void NotificationCenter::removeObserver(ObserverId id) {
    std::lock_guard lk(mu_);
    std::erase_if(observers_, [id](const Observer& o) { return o.id == id; });
}

void NotificationCenter::post(const Notification& n) {
    std::vector<std::pair<ObserverId, std::shared_ptr<Callback>>> matching;
    {
        std::lock_guard lk(mu_);
        for (const auto& o : observers_) {
            if ((o.name.empty() || o.name == n.name) && (!o.sender || o.sender == n.sender)) {
                matching.emplace_back(o.id, o.cb);
            }
        }
    }
    for (const auto& [id, cb] : matching) {
        // An observer removed by an earlier callback of this same post is not called.
        bool still = false;
        {
            std::lock_guard lk(mu_);
            still = std::any_of(observers_.begin(), observers_.end(),
                                [id = id](const Observer& o) { return o.id == id; });
        }
        if (still) (*cb)(n);
    }
}

NotificationQueue& NotificationQueue::defaultQueue() {
    thread_local NotificationQueue queue;
    return queue;
}

void NotificationQueue::enqueueNotification(Notification n, NotificationCenter& center) {
    if (!tlDeferring && tlWorkDepth == 0) {
        center.post(n);
        return;
    }
    for (const auto& p : pending_) {
        if (p.center == &center && p.n.name == n.name && p.n.sender == n.sender) return;
    }
    pending_.push_back({std::move(n), &center});
}

void NotificationQueue::flush() {
    while (!pending_.empty()) {
        Pending p = std::move(pending_.front());
        pending_.pop_front();
        p.center->post(p.n);
    }
}

void NotificationQueue::markThreadDeferring() {
    tlDeferring = true;
}

void NotificationQueue::beginWorkItem() {
    ++tlWorkDepth;
}

void NotificationQueue::endWorkItem() {
    if (tlWorkDepth == 1) defaultQueue().flush();
    --tlWorkDepth;
}

}  // namespace quenby::platform
