// The one way for any layer (and the host) to record a free-form analytics event.
#pragma once

#include <string>

#include "platform/json.h"

class QZWAnalyticsEvent {
  public:
    // Queues "QZWManagerDidTriggerAnalyticsEvent" on the calling thread's notification queue,
    // delivered at the end of the current run-loop pass. Events posted in one pass collapse into
    // one (the first), and with no analytics logger alive nobody records them.
    static void postEventWithDetails(const std::string& type,
                                     const quenby::platform::Json& details);
    // The notifications' sender: this class.
    static const void* sender();
};
