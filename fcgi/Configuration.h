// Configuration: a client's section of clients.ini as a host uses it, and how it follows the file.
#pragma once

#include <array>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "client/ResponseSettings.h"
#include "config/ConfigFile.h"

// One state of the section. Never changes once it is loaded: any number of requests may use it.
class Configuration {
  public:
    // Also completes the file where its section is missing or has no server list, as every program of the library
    // does. Throws std::runtime_error with file, line and reason.
    static std::shared_ptr<Configuration> load(const std::string& path, const std::string& client,
                                               bool logsAll);

    // What would keep load() from it; empty when nothing would. Changes no file.
    static std::string check(const std::string& path, const std::string& client);

    Stanza& section() const { return *section_; }
    const ResponseSettings& responses() const { return responses_; }
    std::uint32_t readWriteTimeout() const { return readWriteTimeout_; }  // milliseconds; 0: the default
    bool parsesFilePaths() const { return parsesFilePaths_; }
    bool wantsFullHeader() const { return wantsFullHeader_; }

  private:
    Configuration(const std::string& path, const std::string& client, bool logsAll);

    ConfigFile file_;
    Stanza* section_ = nullptr;  // inside file_
    ResponseSettings responses_;
    std::uint32_t readWriteTimeout_ = 0;
    bool parsesFilePaths_ = false;
    bool wantsFullHeader_ = false;
};

// The state that counts now. A thread looks at the file every second and takes what was changed; a file that cannot be
// used leaves the last good state. Threads: any.
class CurrentConfiguration {
  public:
    struct Condition {
        unsigned reloads = 0;   // that were taken
        unsigned refusals = 0;  // that were not
        std::time_t loaded = 0;
        std::string fault;  // of the file as it is now; empty: none
    };

    // Loads the first state; throws as Configuration::load does.
    CurrentConfiguration(std::string path, std::string client, bool logsAll);
    CurrentConfiguration(const CurrentConfiguration&) = delete;
    CurrentConfiguration& operator=(const CurrentConfiguration&) = delete;
    ~CurrentConfiguration();

    std::shared_ptr<Configuration> get() const;
    Condition condition() const;
    void reload();  // at once, whether or not the file seems changed

    // Of the file: what tells one state of it from another.
    using FileState = std::array<long long, 5>;

  private:
    void follow();
    void load();

    const std::string path_;
    const std::string client_;
    const bool logsAll_;
    FileState seen_;            // at the last look; the follower's
    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::shared_ptr<Configuration> current_;
    Condition condition_;
    bool isAsked_ = false;
    bool isEnding_ = false;
    std::thread follower_;
};
