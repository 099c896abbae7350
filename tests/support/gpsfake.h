// gpsd fed from an NMEA log the test composes, through gpsfake (from gpsd-clients), which starts
// a gpsd of its own on a TCP port of the test's choosing and writes the log to it through a pty,
// one sentence every `cycle` seconds.
//
// gpsfake starts writing as soon as gpsd has the device, and gpsd takes a second or so to
// identify it and passes on nothing while no client watches, so every log starts with `leadIn`
// seconds of a receiver without a fix: a client that connects as soon as start() returns sees
// every sentence of the test's own. The log lines go to gpsd exactly as given (no filtering by
// gpsfake), so garbage reaches gpsd's parser.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/daemons.h"

namespace quenby::testing {

// "$" + body + "*" + its checksum (XOR of every byte of body, two hex digits).
std::string nmeaSentence(const std::string& body);
// A GGA fix (with altitude, so gpsd reports mode 3). Quality 0 is a receiver without a fix. gpsd
// turns HDOP into its error estimate at about 19 m per unit: hdop 1 is a usable fix, hdop 5
// (95 m) one too coarse to decide by.
std::string nmeaGGA(double lat, double lng, int secondsOfDay, int quality = 1, double hdop = 1.0);
// An RMC sentence (date 2024-01-01); `valid` false is status V, no fix.
std::string nmeaRMC(double lat, double lng, int secondsOfDay, bool valid = true);
// A GGA of a receiver that is on but has no position yet.
std::string nmeaNoFix(int secondsOfDay);
// Lines a broken receiver or cable produces: prose, a sentence with a wrong checksum, a
// truncated sentence, binary noise and an overlong line.
std::vector<std::string> nmeaGarbage();

class GpsFake {
  public:
    struct Options {
        double cycle = 0.1;   // seconds between sentences
        int port = 0;         // 0: a free one
        double leadIn = 3.0;  // seconds of fix-less sentences before the log's own
        // Replay the log until stopped. Played once, gpsfake ends soon after the last sentence
        // and takes gpsd with it: clients see the connection close.
        bool repeat = false;
    };

    // Nothing when gpsfake or gpsd cannot run here; `whyNot` says why. Returns once gpsd accepts
    // connections on the port and has the log's device open.
    static std::unique_ptr<GpsFake> start(const std::vector<std::string>& nmeaLines,
                                          std::string* whyNot);
    static std::unique_ptr<GpsFake> start(const std::vector<std::string>& nmeaLines,
                                          std::string* whyNot, const Options& options);
    int port() const { return port_; }
    Child& process() { return *child_; }
    // Stops gpsfake and its gpsd now: clients see the connection close.
    void stop();

  private:
    GpsFake() = default;
    TempDir dir_;
    int port_ = 0;
    std::unique_ptr<Child> child_;  // stops gpsfake and its gpsd when it goes
};

}  // namespace quenby::testing
