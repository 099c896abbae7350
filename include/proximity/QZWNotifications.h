// Names of the proximity layer's notifications and of their user-info keys.
//
// User-info values: "QZWEvent" an int (1 state determined, 2 enter, 3 exit, 4 ranged beacons);
// "QZWRegion" a std::shared_ptr<const QZWRegion>; "QZWRegionState" a std::int64_t (0 unknown,
// 1 inside, 2 outside); "QZWIBeacons" a std::vector<std::shared_ptr<const QZWBeacon>>;
// "QZWAnalyticsEventType" a std::string; "QZWAnalyticsEventDetails" a quenby::platform::Json.
#pragma once

inline constexpr const char QZWManagerDidDetermineStateForRegionNotification[] =
    "QZWManagerDidDetermineStateForRegion";
inline constexpr const char QZWManagerDidEnterRegionNotification[] = "QZWManagerDidEnterRegion";
inline constexpr const char QZWManagerDidExitRegionNotification[] = "QZWManagerDidExitRegion";
inline constexpr const char QZWManagerDidRangeBeaconsInRegionNotification[] =
    "QZWManagerDidRangeBeaconsInRegion";
inline constexpr const char QZWManagerDidTriggerAnalyticsEvent[] =
    "QZWManagerDidTriggerAnalyticsEvent";

inline constexpr const char QZWManagerNotificationEventKey[] = "QZWEvent";
inline constexpr const char QZWManagerNotificationRegionKey[] = "QZWRegion";
inline constexpr const char QZWManagerNotificationRegionStateKey[] = "QZWRegionState";
inline constexpr const char QZWManagerNotificationBeaconsKey[] = "QZWIBeacons";
inline constexpr const char QZWManagerNotificationAnalyticsEventTypeKey[] = "QZWAnalyticsEventType";
inline constexpr const char QZWManagerNotificationAnalyticsEventDetailsKey[] =
    "QZWAnalyticsEventDetails";
