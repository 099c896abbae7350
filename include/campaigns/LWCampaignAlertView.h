// A modal alert made from a campaign's content, with "Cancel" and "View Details"; the completion
// runs only for "View Details".
#pragma once

#include <functional>
#include <memory>

#include "campaigns/LWCampaign.h"
#include "platform/application.h"

class LWCampaignAlertViewDelegate {
  public:
    explicit LWCampaignAlertViewDelegate(std::function<void()> block) : block_(std::move(block)) {}
    // Index 1 ("View Details") runs the block; any other index does nothing.
    void alertViewDidDismissWithButtonIndex(int buttonIndex) {
        if (buttonIndex == 1 && block_) block_();
    }

  private:
    std::function<void()> block_;
};

class LWCampaignAlertView {
  public:
    // Makes the alert and shows it at once.
    static void showWithCampaignAndCompletion(quenby::platform::Application& application,
                                              const LWCampaign& campaign,
                                              std::function<void()> completion);

    LWCampaignAlertView(const LWCampaign& campaign,
                        std::shared_ptr<LWCampaignAlertViewDelegate> delegate);
    void show(quenby::platform::Application& application);
    // Lives as long as the alert: the platform's alert does not keep its delegate.
    const std::shared_ptr<LWCampaignAlertViewDelegate>& retainedDelegate() const {
        return retainedDelegate_;
    }

  private:
    std::string title_, message_;
    std::shared_ptr<LWCampaignAlertViewDelegate> retainedDelegate_;
};
