// Column names of the status database, also the keys of a session's record dictionary.
#pragma once

inline constexpr const char QTLBeaconSessionIDColumnName[] = "id";
inline constexpr const char QTLBeaconSessionUUIDColumnName[] = "beacon_uuid";
inline constexpr const char QTLBeaconSessionMajorColumnName[] = "beacon_major";
inline constexpr const char QTLBeaconSessionMinorColumnName[] = "beacon_minor";
inline constexpr const char QTLBeaconSessionFirstDetectedAtColumnName[] = "first_detected_at";
inline constexpr const char QTLBeaconSessionLastDetectedAtColumnName[] = "last_detected_at";
