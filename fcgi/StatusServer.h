// StatusServer: the pages that tell how a host is, over HTTP.
#pragma once

#include <functional>
#include <string>

struct MHD_Daemon;

// Serves each page to whoever asks, by a thread of its own.
class StatusServer {
  public:
    struct Page {
        const char* contentType;
        std::string text;
    };
    // The page of a path; an empty text: there is none.
    using Pages = std::function<Page(const std::string& path)>;

    // Takes the listening socket over. Throws std::runtime_error.
    StatusServer(int listener, Pages pages);
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;
    ~StatusServer();

    Page page(const std::string& path) const { return pages_(path); }

  private:
    const Pages pages_;
    MHD_Daemon* const daemon_;
};
