#include "Configuration.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "Log.h"
#include "client/ConfigClnt.h"
#include "config/ClientKeys.h"
#include "protocol/ServerList.h"

namespace {

constexpr std::chrono::seconds kLook(1);

std::string faultIn(const ConfigFile& file, const std::string& path) {
    const ParseError& error = file.lastParseError();
    if (error.systemError != 0) return path + ": " + std::strerror(error.systemError);
    if (error.line == 0)
        return path + ": " + (*error.reason != '\0' ? error.reason : "has no usable section");
    return path + ":" + std::to_string(error.line) + ":" + std::to_string(error.column) + ": " + error.reason;
}

CurrentConfiguration::FileState stateOf(const std::string& path) {
    struct stat status {};
    const int error = stat(path.c_str(), &status) == 0 ? 0 : errno;
    const auto nanoseconds = [](const timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; };
    return {error, static_cast<long long>(status.st_ino), status.st_size, nanoseconds(status.st_mtim),
            nanoseconds(status.st_ctim)};
}

}  // namespace

// ---- one state ----

// A response by way of FastCGI has no past to keep: it always has a status, is cut where it breaks, and failures are
// told in the log.
Configuration::Configuration(const std::string& path, const std::string& client, bool logsAll)
    : file_(path.c_str(), kDirectoryStanza) {
    if (ProcessClientConfig(&file_, client.c_str(), section_) != CLIENT_CONFIG_OK)
        throw std::runtime_error(faultIn(file_, path));
    section_->changeValue(key::HTTPSTATUS.name, "yes");
    section_->changeValue(key::BROKENANSWER.name, "cut");
    section_->changeValue(key::CLIENTLOG.name, logsAll ? "stderr,all" : "stderr");
    section_->changeValue(key::NEEDLENGTH.name, "no");
    responses_ = ResponseSettings(*section_);
    readWriteTimeout_ = ReadWriteTimeoutOf(*section_);
    parsesFilePaths_ = IsTrueValue(*section_, key::PARSEFILEPATHS);
    wantsFullHeader_ = IsTrueValue(*section_, key::SENDFULLHEADER);
}

std::shared_ptr<Configuration> Configuration::load(const std::string& path, const std::string& client,
                                                   bool logsAll) {
    return std::shared_ptr<Configuration>(new Configuration(path, client, logsAll));
}

std::string Configuration::check(const std::string& path, const std::string& client) {
    ConfigFile file(path.c_str(), kDirectoryStanza);
    if (!file.parseStanza(client.c_str())) return faultIn(file, path);
    Stanza* section = file.getStanza(client.c_str());
    if (section == nullptr) return path + ": no section [" + client + "]";
    if (ServerList(*section).text().IsEmpty()) return path + ": no server in [" + client + "]";
    return "";
}

// ---- the state that counts ----

CurrentConfiguration::CurrentConfiguration(std::string path, std::string client, bool logsAll)
    : path_(std::move(path)),
      client_(std::move(client)),
      logsAll_(logsAll),
      seen_(stateOf(path_)),
      current_(Configuration::load(path_, client_, logsAll_)) {
    condition_.loaded = std::time(nullptr);
    follower_ = std::thread(&CurrentConfiguration::follow, this);
}

CurrentConfiguration::~CurrentConfiguration() {
    {
        const std::lock_guard lock(mutex_);
        isEnding_ = true;
    }
    changed_.notify_all();
    follower_.join();
}

std::shared_ptr<Configuration> CurrentConfiguration::get() const {
    const std::lock_guard lock(mutex_);
    return current_;
}

CurrentConfiguration::Condition CurrentConfiguration::condition() const {
    const std::lock_guard lock(mutex_);
    return condition_;
}

void CurrentConfiguration::reload() {
    {
        const std::lock_guard lock(mutex_);
        isAsked_ = true;
    }
    changed_.notify_all();
}

void CurrentConfiguration::follow() {
    for (std::unique_lock lock(mutex_);;) {
        changed_.wait_for(lock, kLook, [this] { return isAsked_ || isEnding_; });
        if (isEnding_) return;
        const bool isAsked = std::exchange(isAsked_, false);
        const FileState now = stateOf(path_);
        if (!isAsked && now == seen_) continue;
        seen_ = now;
        lock.unlock();  // reading takes its time
        load();
        lock.lock();
    }
}

void CurrentConfiguration::load() {
    std::shared_ptr<Configuration> loaded;
    std::string fault;
    try {
        loaded = Configuration::load(path_, client_, logsAll_);
    } catch (const std::exception& error) {
        fault = error.what();
    }
    const std::lock_guard lock(mutex_);
    if (loaded != nullptr) {
        current_ = loaded;
        condition_.loaded = std::time(nullptr);
        ++condition_.reloads;
        logLine("the configuration was loaded again");
    } else {
        ++condition_.refusals;
        if (fault != condition_.fault) logLine(fault + "; the last good configuration stays");
    }
    condition_.fault = fault;
}
