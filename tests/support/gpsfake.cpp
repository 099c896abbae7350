#include "support/gpsfake.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>

namespace quenby::testing {

namespace {

// Any run of non-blank bytes serves; the log lines must not contain it.
constexpr const char* kDelimiter = "~~";

std::string timeOfDay(int secondsOfDay) {
    int s = ((secondsOfDay % 86400) + 86400) % 86400;
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d%02d%02d.00", s / 3600, s / 60 % 60, s % 60);
    return buf;
}

// NMEA's degrees-and-minutes, to a millionth of a minute (about 2 mm), and the hemisphere.
std::string degreesMinutes(double value, bool latitude) {
    long long micro = std::llround(std::fabs(value) * 60e6);  // whole millionths of a minute
    long long degrees = micro / 60'000'000;
    double minutes = static_cast<double>(micro % 60'000'000) / 1e6;
    char hemisphere = latitude ? (value < 0 ? 'S' : 'N') : (value < 0 ? 'W' : 'E');
    char buf[32];
    std::snprintf(buf, sizeof buf, latitude ? "%02lld%09.6f,%c" : "%03lld%09.6f,%c", degrees,
                  minutes, hemisphere);
    return buf;
}

// True once gpsd on `port` answers and lists a device: the log's pty, added by gpsfake through
// gpsd's control socket only after gpsd listens.
bool deviceListed(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    timeval timeout{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string got;
    const std::string ask = "?DEVICES;\n";
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::send(fd, ask.data(), ask.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(ask.size())) {
        char buf[4096];
        while (got.find("\"class\":\"DEVICES\"") == std::string::npos ||
               got.find('\n', got.find("\"class\":\"DEVICES\"")) == std::string::npos) {
            ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            if (n <= 0) break;
            got.append(buf, static_cast<std::size_t>(n));
        }
    }
    ::close(fd);
    auto devices = got.find("\"class\":\"DEVICES\"");
    return devices != std::string::npos && got.find("\"path\"", devices) != std::string::npos;
}

}  // namespace

std::string nmeaSentence(const std::string& body) {
    unsigned char sum = 0;
    for (char c : body) sum ^= static_cast<unsigned char>(c);
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X", sum);
    return "$" + body + tail;
}

std::string nmeaGGA(double lat, double lng, int secondsOfDay, int quality, double hdop) {
    char rest[64];
    std::snprintf(rest, sizeof rest, ",%d,%02d,%.1f,10.0,M,47.0,M,,", quality, quality > 0 ? 8 : 0,
                  hdop);
    return nmeaSentence("GPGGA," + timeOfDay(secondsOfDay) + "," + degreesMinutes(lat, true) + "," +
                        degreesMinutes(lng, false) + rest);
}

std::string nmeaRMC(double lat, double lng, int secondsOfDay, bool valid) {
    return nmeaSentence("GPRMC," + timeOfDay(secondsOfDay) + (valid ? ",A," : ",V,") +
                        degreesMinutes(lat, true) + "," + degreesMinutes(lng, false) +
                        ",0.0,0.0,010124,,," + (valid ? "A" : "N"));
}

std::string nmeaNoFix(int secondsOfDay) {
    return nmeaSentence("GPGGA," + timeOfDay(secondsOfDay) + ",,,,,0,00,99.9,,M,,M,,");
}

std::vector<std::string> nmeaGarbage() {
    return {
        "this is not NMEA at all",
        "$GPGGA,120000.00,5130.000000,N,00007.200000,W,1,08,1.0,10.0,M,47.0,M,,*00",
        "$GPGGA,1200",
        std::string("\x01\x02\x7f\xfe\xff\x00 noise", sizeof "\x01\x02\x7f\xfe\xff\x00 noise" - 1),
        std::string(300, 'A'),
    };
}

std::unique_ptr<GpsFake> GpsFake::start(const std::vector<std::string>& nmeaLines,
                                        std::string* whyNot) {
    return start(nmeaLines, whyNot, Options{});
}

std::unique_ptr<GpsFake> GpsFake::start(const std::vector<std::string>& nmeaLines,
                                        std::string* whyNot, const Options& options) {
    auto fail = [&](std::string why) {
        if (whyNot) *whyNot = std::move(why);
        return nullptr;
    };
    std::unique_ptr<GpsFake> fake(new GpsFake());
    fake->port_ = options.port ? options.port : freePort();

    // A Delay-Cookie makes gpsfake split the log at the delimiter and send each piece verbatim;
    // without it gpsfake's own packet sniffer drops whatever is not a well-formed packet.
    std::string log = std::string("#Delay-Cookie: ") + kDelimiter + " 0.001\n";
    double leadIn = options.cycle > 0 ? std::ceil(options.leadIn / options.cycle) : 0.0;
    std::vector<std::string> lines(static_cast<std::size_t>(std::max(leadIn, 0.0)),
                                   nmeaSentence("GPGGA,,,,,,0,00,99.9,,M,,M,,"));
    lines.insert(lines.end(), nmeaLines.begin(), nmeaLines.end());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(kDelimiter) != std::string::npos)
            return fail("an NMEA line holds the delimiter \"~~\": " + lines[i]);
        if (i) log += kDelimiter;
        log += lines[i] + "\r\n";
    }
    std::string file = fake->dir_.file("log.nmea");
    std::ofstream(file, std::ios::binary) << log;

    // -n: gpsd opens the device as soon as gpsfake adds it rather than when a client first
    // watches, which a client that watched before the device was added would wait for forever.
    std::vector<std::string> argv{"gpsfake", "-q", "-n"};
    if (!options.repeat) argv.push_back("-1");
    char cycle[32];
    std::snprintf(cycle, sizeof cycle, "%g", options.cycle);
    argv.insert(argv.end(), {"-c", cycle, "-P", std::to_string(fake->port_), file});
    std::size_t portArg = argv.size() - 2;
    // A port picked free can be taken by a parallel test before gpsd binds it: then gpsfake ends
    // at once, and another free port is tried.
    for (int attempt = 0;; ++attempt) {
        fake->child_ = Child::spawn(argv);
        if (!fake->child_) return fail("gpsfake cannot be started (is gpsd-clients installed?)");
        int port = fake->port_;
        Child& child = *fake->child_;
        bool up = waitFor([&] { return deviceListed(port) || !child.running(); }, 15.0) &&
                  child.running();
        if (up) return fake;
        if (options.port || attempt == 2 || child.running())
            return fail("gpsfake/gpsd did not come up on port " + std::to_string(port) + ": " +
                        child.output());
        fake->port_ = freePort();
        argv[portArg] = std::to_string(fake->port_);
    }
}

void GpsFake::stop() {
    if (child_) child_->stop();
}

}  // namespace quenby::testing
