// What the crash host and the campaign driver agree on: the beacons the host plays, the event type
// it records, and the lines it writes on standard output once a commit has returned.
//
//   R <id>                     a beacon-region session row was inserted
//   G <id>                     a geofence session row was inserted
//   X R <id> / X G <id>        that session was closed
//   B <session> <uuid> <major> <minor>   a beacon row of that session exists
//   S <uuid> <major> <minor>   a status row exists for that beacon
//   E <seq>                    an analytics event carrying {"seq": seq} was recorded
//   READY                      the kit arrived and recording starts
//   ANOMALY <text>             a write the host made is not in the database (never expected)
#pragma once

namespace quenby::crash {

// The kit's beacons: one UUID, major 1, minors 1..3, each its own region.
inline constexpr const char* kKitUUID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
// Beacons that are in no kit entry: every ranging report carries a new one (major = run, minor =
// a counter), so the status table gains a row per report instead of only refreshing three.
inline constexpr const char* kStatusUUID = "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5";
inline constexpr const char* kEventType = "crash_events";

}  // namespace quenby::crash
