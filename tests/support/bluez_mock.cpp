#include "support/bluez_mock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

namespace quenby::testing {

namespace {
constexpr char kBluez[] = "org.bluez";
constexpr char kMockInterface[] = "org.bluez.Mock";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

// `method` on the mock's object at `path`: its reply, or nothing when the mock refused it (a
// failure of the current test unless `quiet`).
template <typename... Args>
std::optional<sdbus::MethodReply> call(sdbus::IConnection& bus, bool quiet, const std::string& path,
                                       const char* interface, const std::string& method,
                                       const Args&... args) {
    try {
        auto proxy = sdbus::createProxy(bus, kBluez, path);
        auto m = proxy->createMethodCall(interface, method);
        (m << ... << args);
        return proxy->callMethod(m);
    } catch (const sdbus::Error& e) {
        if (!quiet)
            ADD_FAILURE() << "bluez mock: " << method << " on " << path << ": " << e.getName()
                          << ": " << e.getMessage();
        return std::nullopt;
    }
}
}  // namespace

std::vector<std::uint8_t> iBeaconFrame(const std::array<std::uint8_t, 16>& uuid,
                                       std::uint16_t major, std::uint16_t minor,
                                       std::int8_t measuredPower) {
    std::vector<std::uint8_t> f{0x02, 0x15};
    for (auto byte : uuid) f.push_back(byte);
    for (int byte : {major >> 8, major & 0xff, minor >> 8, minor & 0xff, measuredPower & 0xff})
        f.push_back(static_cast<std::uint8_t>(byte));
    return f;
}

std::unique_ptr<BluezMock> BluezMock::start(const PrivateBus& bus, std::string* whyNot) {
    std::unique_ptr<BluezMock> m(new BluezMock(bus));
    m->mock_ = DbusMock::start(bus, /*systemBus=*/true, "bluez5", kBluez, whyNot);
    if (!m->mock_) return nullptr;
    try {
        m->connection_ = sdbus::createSessionBusConnectionWithAddress(bus.address());
    } catch (const sdbus::Error& e) {
        if (whyNot) *whyNot = "cannot connect to the private bus: " + e.getMessage();
        return nullptr;
    }
    return m;
}

void BluezMock::kill() {
    if (mock_) mock_->kill();
}

bool BluezMock::restart(std::string* whyNot) {
    kill();
    mock_.reset();
    std::string why;
    mock_ = DbusMock::start(bus_, /*systemBus=*/true, "bluez5", kBluez, &why);
    if (!mock_) ADD_FAILURE() << "bluez mock did not come back: " << why;
    if (!mock_ && whyNot) *whyNot = why;
    return mock_ != nullptr;
}

std::string BluezMock::addAdapter(const std::string& name, const std::string& systemName) {
    std::string path;
    if (auto r = call(*connection_, false, "/", kMockInterface, "AddAdapter", name, systemName))
        *r >> path;
    return path;
}

bool BluezMock::removeAdapter(const std::string& name) {
    return call(*connection_, false, "/", kMockInterface, "RemoveAdapter", name).has_value();
}

bool BluezMock::setPowered(const std::string& name, bool powered) {
    return setProperty(adapterPath(name), kAdapterInterface, "Powered", sdbus::Variant(powered));
}

std::optional<bool> BluezMock::discovering(const std::string& name) {
    auto v = getProperty(adapterPath(name), kAdapterInterface, "Discovering");
    if (!v || !v->containsValueOfType<bool>()) return std::nullopt;
    return v->get<bool>();
}

std::optional<std::map<std::string, sdbus::Variant>> BluezMock::discoveryFilter(
    const std::string& name) {
    using Filter = std::map<std::string, sdbus::Variant>;
    auto v = getProperty(adapterPath(name), kAdapterInterface, "DiscoveryFilter");
    if (!v || !v->containsValueOfType<Filter>()) return std::nullopt;
    return v->get<Filter>();
}

bool BluezMock::refuseDiscovery(const std::string& name, const std::string& errorName,
                                const std::string& message) {
    auto quote = [](const std::string& s) {
        std::string q = "'";
        for (char c : s) {
            if (c == '\'' || c == '\\') q += '\\';
            q += c;
        }
        return q + "'";
    };
    return addAdapterMethod(name, "StartDiscovery",
                            "raise dbus.exceptions.DBusException(" + quote(message) +
                                ", name=" + quote(errorName) + ")");
}

bool BluezMock::acceptDiscovery(const std::string& name) {
    return addAdapterMethod(
        name, "StartDiscovery",
        "self.props['org.bluez.Adapter1']['Discovering'] = True\n"
        "self.EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as', "
        "['org.bluez.Adapter1', {'Discovering': dbus.Boolean(True, variant_level=1)}, []])\n");
}

bool BluezMock::addAdapterMethod(const std::string& name, const std::string& method,
                                 const std::string& code) {
    return call(*connection_, false, adapterPath(name), "org.freedesktop.DBus.Mock", "AddMethod",
                std::string(kAdapterInterface), method, std::string(), std::string(), code)
        .has_value();
}

std::string BluezMock::devicePath(const std::string& adapter, const std::string& address) {
    std::string d = address;
    std::replace(d.begin(), d.end(), ':', '_');
    std::transform(d.begin(), d.end(), d.begin(), [](unsigned char c) { return std::toupper(c); });
    return adapterPath(adapter) + "/dev_" + d;
}

std::string BluezMock::addDevice(const std::string& adapter, const std::string& address,
                                 const std::string& alias) {
    std::string path;
    if (auto r =
            call(*connection_, false, "/", kMockInterface, "AddDevice", adapter, address, alias))
        *r >> path;
    return path;
}

bool BluezMock::removeDevice(const std::string& adapter, const std::string& address) {
    return call(*connection_, false, adapterPath(adapter), kAdapterInterface, "RemoveDevice",
                sdbus::ObjectPath(devicePath(adapter, address)))
        .has_value();
}

bool BluezMock::setManufacturerData(const std::string& devicePath,
                                    const std::map<std::uint16_t, sdbus::Variant>& data) {
    return setDeviceProperty(devicePath, "ManufacturerData", sdbus::Variant(data));
}

bool BluezMock::setIBeacon(const std::string& devicePath, const std::array<std::uint8_t, 16>& uuid,
                           std::uint16_t major, std::uint16_t minor, std::int8_t measuredPower) {
    return setManufacturerData(
        devicePath, {{kApple, sdbus::Variant(iBeaconFrame(uuid, major, minor, measuredPower))}});
}

bool BluezMock::setRssi(const std::string& devicePath, std::int16_t rssi) {
    return setDeviceProperty(devicePath, "RSSI", sdbus::Variant(rssi));
}

bool BluezMock::setDeviceProperty(const std::string& devicePath, const std::string& property,
                                  const sdbus::Variant& value) {
    return setProperty(devicePath, "org.bluez.Device1", property, value);
}

bool BluezMock::setProperty(const std::string& path, const std::string& interface,
                            const std::string& property, const sdbus::Variant& value) {
    return call(*connection_, false, path, kPropertiesInterface, "Set", interface, property, value)
        .has_value();
}

// Quiet: an unknown property (no filter yet) or adapter answers the caller's "is it there".
std::optional<sdbus::Variant> BluezMock::getProperty(const std::string& path,
                                                     const std::string& interface,
                                                     const std::string& property) {
    sdbus::Variant v;
    auto r = call(*connection_, true, path, kPropertiesInterface, "Get", interface, property);
    if (!r) return std::nullopt;
    *r >> v;
    return v;
}

}  // namespace quenby::testing
