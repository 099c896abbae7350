#include "support/bluez_mock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

namespace quenby::testing {

namespace {
constexpr char kBluez[] = "org.bluez";
constexpr char kMockInterface[] = "org.bluez.Mock";
constexpr char kDbusMockInterface[] = "org.freedesktop.DBus.Mock";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

bool fail(const std::string& what, const sdbus::Error& e) {
    ADD_FAILURE() << "bluez mock: " << what << ": " << e.getName() << ": " << e.getMessage();
    return false;
}
}  // namespace

std::vector<std::uint8_t> iBeaconFrame(const std::array<std::uint8_t, 16>& uuid,
                                       std::uint16_t major, std::uint16_t minor,
                                       std::int8_t measuredPower) {
    std::vector<std::uint8_t> f(2 + uuid.size() + 5);
    f[0] = 0x02;
    f[1] = 0x15;
    std::copy(uuid.begin(), uuid.end(), f.begin() + 2);
    f[18] = static_cast<std::uint8_t>(major >> 8);
    f[19] = static_cast<std::uint8_t>(major & 0xff);
    f[20] = static_cast<std::uint8_t>(minor >> 8);
    f[21] = static_cast<std::uint8_t>(minor & 0xff);
    f[22] = static_cast<std::uint8_t>(measuredPower);
    return f;
}

std::unique_ptr<BluezMock> BluezMock::start(const PrivateBus& bus, std::string* whyNot) {
    std::unique_ptr<BluezMock> m(new BluezMock(bus));
    m->mock_ = DbusMock::start(bus, /*systemBus=*/true, "bluez5", kBluez, whyNot);
    if (!m->mock_ || !m->connect(whyNot)) return nullptr;
    return m;
}

BluezMock::~BluezMock() {
    connection_.reset();
    mock_.reset();
}

bool BluezMock::connect(std::string* whyNot) {
    if (connection_) return true;
    try {
        connection_ = sdbus::createSessionBusConnectionWithAddress(bus_.address());
        return true;
    } catch (const sdbus::Error& e) {
        if (whyNot) *whyNot = "cannot connect to the private bus: " + e.getMessage();
        return false;
    }
}

void BluezMock::kill() {
    if (mock_) mock_->kill();
}

bool BluezMock::restart(std::string* whyNot) {
    kill();
    mock_.reset();
    std::string why;
    mock_ = DbusMock::start(bus_, /*systemBus=*/true, "bluez5", kBluez, &why);
    if (!mock_) {
        if (whyNot) *whyNot = why;
        ADD_FAILURE() << "bluez mock did not come back: " << why;
        return false;
    }
    return true;
}

std::unique_ptr<sdbus::IProxy> BluezMock::proxy(const std::string& path) {
    return sdbus::createProxy(*connection_, kBluez, path);
}

std::string BluezMock::addAdapter(const std::string& name, const std::string& systemName) {
    try {
        std::string path;
        proxy("/")
            ->callMethod("AddAdapter")
            .onInterface(kMockInterface)
            .withArguments(name, systemName)
            .storeResultsTo(path);
        return path;
    } catch (const sdbus::Error& e) {
        fail("AddAdapter " + name, e);
        return {};
    }
}

bool BluezMock::removeAdapter(const std::string& name) {
    try {
        proxy("/")->callMethod("RemoveAdapter").onInterface(kMockInterface).withArguments(name);
        return true;
    } catch (const sdbus::Error& e) {
        return fail("RemoveAdapter " + name, e);
    }
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
    try {
        proxy(adapterPath(name))
            ->callMethod("AddMethod")
            .onInterface(kDbusMockInterface)
            .withArguments(std::string(kAdapterInterface), method, std::string(), std::string(),
                           code);
        return true;
    } catch (const sdbus::Error& e) {
        return fail("AddMethod " + method + " on " + name, e);
    }
}

std::string BluezMock::devicePath(const std::string& adapter, const std::string& address) {
    std::string d = address;
    std::replace(d.begin(), d.end(), ':', '_');
    std::transform(d.begin(), d.end(), d.begin(), [](unsigned char c) { return std::toupper(c); });
    return adapterPath(adapter) + "/dev_" + d;
}

std::string BluezMock::addDevice(const std::string& adapter, const std::string& address,
                                 const std::string& alias) {
    try {
        std::string path;
        proxy("/")
            ->callMethod("AddDevice")
            .onInterface(kMockInterface)
            .withArguments(adapter, address, alias)
            .storeResultsTo(path);
        return path;
    } catch (const sdbus::Error& e) {
        fail("AddDevice " + address, e);
        return {};
    }
}

bool BluezMock::removeDevice(const std::string& adapter, const std::string& address) {
    try {
        proxy(adapterPath(adapter))
            ->callMethod("RemoveDevice")
            .onInterface(kAdapterInterface)
            .withArguments(sdbus::ObjectPath(devicePath(adapter, address)));
        return true;
    } catch (const sdbus::Error& e) {
        return fail("RemoveDevice " + address, e);
    }
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
    return setProperty(devicePath, kDeviceInterface, property, value);
}

bool BluezMock::setProperty(const std::string& path, const std::string& interface,
                            const std::string& property, const sdbus::Variant& value) {
    try {
        proxy(path)
            ->callMethod("Set")
            .onInterface(kPropertiesInterface)
            .withArguments(interface, property, value);
        return true;
    } catch (const sdbus::Error& e) {
        return fail("Set " + path + " " + property, e);
    }
}

std::optional<sdbus::Variant> BluezMock::getProperty(const std::string& path,
                                                     const std::string& interface,
                                                     const std::string& property) {
    try {
        sdbus::Variant v;
        proxy(path)
            ->callMethod("Get")
            .onInterface(kPropertiesInterface)
            .withArguments(interface, property)
            .storeResultsTo(v);
        return v;
    } catch (const sdbus::Error&) {
        // Unknown property (no filter yet) or no such adapter: the caller asked "is it there".
        return std::nullopt;
    }
}

}  // namespace quenby::testing
