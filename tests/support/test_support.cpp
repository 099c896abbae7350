#include "support/test_support.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/database.h"
#include "platform/plist.h"

namespace quenby::test {

TempDir::TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "quenby-test-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave read-only directories behind; make them removable first.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
    }
    std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(const std::string& name) const {
    return path_ + "/" + name;
}

ConsoleCapture::ConsoleCapture() {
    previous_ = platform::setConsoleSink([this](std::string_view line) {
        std::lock_guard lk(mu_);
        lines_.emplace_back(line);
    });
}

ConsoleCapture::~ConsoleCapture() {
    platform::setConsoleSink(std::move(previous_));
}

std::vector<std::string> ConsoleCapture::lines() const {
    std::lock_guard lk(mu_);
    return lines_;
}

bool ConsoleCapture::contains(const std::string& line) const {
    std::lock_guard lk(mu_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

std::vector<std::string> ConsoleCapture::withPrefix(const std::string& prefix) const {
    std::lock_guard lk(mu_);
    std::vector<std::string> out;
    for (const auto& l : lines_) {
        if (l.rfind(prefix, 0) == 0) out.push_back(l);
    }
    return out;
}

void ConsoleCapture::clear() {
    std::lock_guard lk(mu_);
    lines_.clear();
}

VirtualPlatform::VirtualPlatform(std::string vendorId,
                                 std::shared_ptr<platform::FileSystem> files) {
    platform::Platform::Options o;
    o.applicationId = "quenby-tests";
    o.bundleDirectory = bundle.path();
    o.documentsDirectory = documents.path();
    o.clock =
        std::make_shared<platform::VirtualClock>(platform::Date::fromSecondsSince1970(kTestStart));
    o.device = std::make_shared<platform::FixedDeviceInfo>(
        vendorId.empty() ? std::nullopt : platform::UUID::parse(vendorId));
    o.files = std::move(files);
    platform = platform::Platform::create(std::move(o));
}

void VirtualPlatform::writeBundlePlist(const std::string& name, const nlohmann::json& value) {
    writeFile(bundle.file(name), platform::toXmlPropertyList(value));
}

void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

std::vector<nlohmann::json> queryRows(const std::string& path, const std::string& sql) {
    std::vector<nlohmann::json> out;
    auto db = platform::Database::open(path);
    if (!db) return out;
    auto rs = db->executeQuery(sql);
    while (rs && rs->next()) {
        nlohmann::json row = nlohmann::json::object();
        for (int i = 0; i < rs->columnCount(); ++i) {
            row[rs->columnNameForIndex(i)] = rs->objectForColumnIndex(i);
        }
        out.push_back(std::move(row));
    }
    return out;
}

std::size_t countOf(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + what.size())) ++n;
    return n;
}

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace quenby::test
