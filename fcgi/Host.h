// Host: the threads that serve a web server's requests.
#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "Configuration.h"
#include "Connections.h"
#include "FcgiRequest.h"
#include "Metrics.h"
#include "Options.h"
#include "Slot.h"

class Host {
  public:
    // Begins to serve. The listener stays the caller's, as all else does. Throws std::runtime_error when so many
    // threads cannot be started, or are too many for the number of descriptors that the process may have.
    Host(const Options& options, int listener, unsigned descriptors, CurrentConfiguration& configuration,
         Metrics& metrics);
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host();  // ends what is still under way

    void look();          // ends what is overdue; at least once a second
    void drain();         // takes no more connections
    bool isDone() const;  // after drain(): all that was under way has ended

    unsigned threads() const { return static_cast<unsigned>(threads_.size()); }
    unsigned busyThreads() const;
    unsigned connections() const { return connections_.count(); }

  private:
    void end();
    void work(Slot& slot);
    bool serve(int connection, Slot& slot);
    bool answer(FcgiRequest& request, const Configuration& configuration, Slot::Clock::time_point deadline);

    const Options& options_;
    CurrentConfiguration& configuration_;
    Metrics& metrics_;
    Connections connections_;
    std::vector<std::unique_ptr<Slot>> slots_;
    std::vector<std::thread> threads_;
};
