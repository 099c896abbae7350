// The application's user-facing side on a Linux desktop: local notifications and alerts become
// freedesktop notifications (org.freedesktop.Notifications on the session bus,
// DBUS_SESSION_BUS_ADDRESS). An alert's buttons become the notification's actions; the user's
// choice (ActionInvoked) runs the alert's button callback exactly as tapping the button would,
// and a local notification's default action reaches the application delegate as a received
// local notification, with its user info. An alert the user closes without choosing a button is
// answered with its cancel button (index 0). Without a session bus, or when the notification
// server does not answer, both are written to the console instead.
#pragma once

#include <memory>

#include "platform/application.h"
#include "platform/scheduler.h"

namespace quenby::sensing {

class DesktopPresenter {
  public:
    // Connects to the session bus and becomes the application's presenter. Host thread.
    static std::unique_ptr<DesktopPresenter> create(
        std::shared_ptr<platform::Scheduler> scheduler,
        std::shared_ptr<platform::Application> application, std::string applicationName);
    // Stops presenting (the application falls back to recording only). Host thread.
    ~DesktopPresenter();

    // True when notifications go to a notification server, false when to the console.
    bool onDesktop() const;

  private:
    struct Impl;
    explicit DesktopPresenter(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

}  // namespace quenby::sensing
