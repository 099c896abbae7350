#!/usr/bin/python3
"""A long walk for lurewave-sim: a shopper paces an aisle of BEACONS beacons (15 m apart) back and
forth for HOURS hours of virtual time, ranged once a second, with a campaign at the middle shelf.

    bench/sim_scenario.py HOURS [BEACONS] > walk.json      (default 30 beacons)
"""
import json
import sys

UUID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"
SPACING = 15.0  # metres: two or three beacons heard at a time
SPEED = 1.0     # metres a second
DWELL = 60.0    # seconds standing at each end of the aisle


def scenario(hours, count):
    beacons = [{"uuid": UUID, "major": 1, "minor": i + 1, "at": [i * SPACING, 0],
                "measuredPower": -59} for i in range(count)]
    kit_beacons = [{"uuid": UUID, "major": 1, "minor": i + 1, "identifier": f"b{i + 1}",
                    "name": f"Shelf {i + 1}", "attributes": {"lw_place_ids": f"[{i + 1}]"}}
                   for i in range(count)]
    length = (count - 1) * SPACING
    duration = hours * 3600.0
    path, t, here = [[0, 2, 0]], 0.0, 0.0
    while t < duration:
        t += DWELL
        path.append([here, 2, t])
        here = length - here
        t += length / SPEED
        path.append([here, 2, t])
    middle = count // 2 + 1
    return {
        "start": "2026-03-01T09:00:00Z",
        "host": "campaigns",
        "bundle": {
            "Info.plist": {"NSLocationAlwaysUsageDescription": "bench"},
            "Zonewise.plist": {"ZWKitURL": "{server}/kit", "ZWAPIToken": "bench",
                               "ZWAnalyticsURL": "{server}/analytics"},
            "Lurewave.plist": {"LWKitURL": "{server}/campaigns", "LWAPIToken": "bench",
                               "ZWKitURL": "{server}/kit", "ZWAPIToken": "bench",
                               "ZWAnalyticsURL": "{server}/analytics"},
        },
        "server": {
            "kit": {"kit": {"id": 1, "name": "Aisle", "status_url": "{server}/status",
                            "status_token": "bench", "ibeacons": kit_beacons}},
            "campaigns": {
                "kits": [{"id": 1, "configuration": {"ios_tokens_url": "{server}/tokens"}}],
                "linked": {
                    "contents": [{"id": 1, "alert_title": "Offer", "alert_message": "m",
                                  "body": "<p>offer</p>"}],
                    "campaigns": [{"id": "offer", "start_at": "2026-03-01T00:00:00.000+0000",
                                   "end_at": "2026-04-01T00:00:00.000+0000",
                                   "min_recur_secs": 3600, "trigger_distance": 2.0,
                                   "links": {"content": 1, "places": [middle],
                                             "fulfillment_places": [1]}}],
                },
            },
        },
        "steps": [{"at": 0, "call": "start"},
                  {"at": 1, "walk": {"origin": [40.0, -75.0], "beacons": beacons, "path": path}}],
        "until": duration + 2,
    }


if __name__ == "__main__":
    hours = float(sys.argv[1])
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 30
    json.dump(scenario(hours, count), sys.stdout)
    sys.stdout.write("\n")
