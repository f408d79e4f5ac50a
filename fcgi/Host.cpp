#include "Host.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>

#include "HostClient.h"
#include "Log.h"
#include "cgi/Exchange.h"

namespace {

// Each thread may have three descriptors besides a connection: a server's, a file's and a state's; the host itself needs
// fewer than the rest.
unsigned mostConnections(unsigned descriptors, unsigned threads) {
    constexpr unsigned kOwn = 64;
    const unsigned others = kOwn + 3 * threads;
    if (descriptors >= others + threads) return descriptors - others;
    throw std::runtime_error(std::to_string(threads) + " threads need " + std::to_string(others + threads) +
                             " descriptors; there may be " + std::to_string(descriptors));
}

class HostExchange final : public Exchange {
  public:
    HostExchange(const RequestParts& parts, const Configuration& configuration, const std::string& clientName,
                 ResponseWriter& response, RequestLog& log)
        : Exchange(parts, configuration.responses(), response, log),
          configuration_(configuration),
          clientName_(clientName),
          response_(response),
          log_(log) {}

  private:
    static QuilClient* clientOf(ve_hclient_t* connection) {
        return QuilClient::CastHandleToQuilClient(connection);
    }
    static TQuilRequest* recordOf(ve_hrequest_t* request) {
        return TQuilRequest::CastHandleToQuilRequest(request);
    }

    bool connect(ve_hclient_t* connection, ve_hrequest_t* request) override {
        return clientOf(connection)
            ->ConnectToQuilServer(recordOf(request), &configuration_.section(), clientName_.c_str(), false);
    }
    bool send(ve_hclient_t* connection, ve_hrequest_t* request) override {
        return clientOf(connection)->SendQuilRequest(recordOf(request));
    }
    bool dispatch(ve_hclient_t* connection) override {
        return clientOf(connection)->DispatchQuilRequests(take, this, configuration_.parsesFilePaths());
    }

    static bool take(QuilClient&, TQUILReqType type, const char* data, std::uint32_t length, void* self) {
        auto* exchange = static_cast<HostExchange*>(self);
        exchange->log_.enter(RequestLog::kRest);
        return exchange->response_.take(type, data, length);
    }

    const Configuration& configuration_;
    const std::string& clientName_;
    ResponseWriter& response_;
    RequestLog& log_;
};

std::string textOf(const char* value) {
    return value != nullptr ? value : "";
}

// A request is in flight as long as this lives.
class InFlight {
  public:
    explicit InFlight(Metrics& metrics) : metrics_(metrics) { metrics_.begin(); }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;
    ~InFlight() { metrics_.end(); }

  private:
    Metrics& metrics_;
};

}  // namespace

Host::Host(const Options& options, int listener, unsigned descriptors, CurrentConfiguration& configuration,
           Metrics& metrics)
    : options_(options),
      configuration_(configuration),
      metrics_(metrics),
      connections_(listener, mostConnections(descriptors, options.threads)) {
    for (unsigned i = 0; i < options.threads; ++i)
        slots_.push_back(std::make_unique<Slot>());
    try {
        for (const auto& slot : slots_)
            threads_.emplace_back(&Host::work, this, std::ref(*slot));
    } catch (const std::system_error& error) {
        end();
        throw std::runtime_error("cannot start " + std::to_string(options.threads) +
                                 " threads: " + error.code().message());
    }
}

Host::~Host() {
    end();
}

void Host::end() {
    connections_.end();
    for (const auto& slot : slots_)
        slot->cut();
    for (std::thread& thread : threads_)
        thread.join();
}

void Host::look() {
    const auto now = Slot::Clock::now();
    for (const auto& slot : slots_)
        slot->look(now);
}

void Host::drain() {
    connections_.drain();
}

bool Host::isDone() const {
    return connections_.count() == 0;
}

unsigned Host::busyThreads() const {
    return static_cast<unsigned>(
        std::count_if(slots_.begin(), slots_.end(), [](const auto& slot) { return slot->isBusy(); }));
}

void Host::work(Slot& slot) {
    for (;;) {
        const int connection = connections_.next();
        if (connection == -1) return;
        bool isKept = false;
        try {
            isKept = serve(connection, slot);
        } catch (const std::exception& error) {  // no memory: the connection has ended with its request
            slot.end();
            logLine(error.what());
        }
        isKept ? connections_.keep(connection) : connections_.forget();
    }
}

// Whether the connection is still open.
bool Host::serve(int connection, Slot& slot) {
    const auto configuration = configuration_.get();
    const std::chrono::seconds own(configuration->responses().requestTimeout);
    const auto time = own.count() != 0 ? std::min(own, options_.requestTimeout) : options_.requestTimeout;
    const auto deadline = Slot::Clock::now() + time;
    slot.begin(connection, deadline);
    FcgiRequest request(connection, options_.maxBody);
    if (request.begin()) {
        const InFlight inFlight(metrics_);
        bool isWhole = false;
        try {
            isWhole = answer(request, *configuration, deadline);
        } catch (const std::bad_alloc& error) {
            logLine(error.what());
            isWhole = request.refuse();
        }
        request.finish(isWhole);
    }
    slot.end();
    return request.release();
}

// Whether the response is whole, be it a page that tells of a failure.
bool Host::answer(FcgiRequest& request, const Configuration& configuration,
                  Slot::Clock::time_point deadline) {
    RequestId id(request);
    ResponseWriter response(request, request, id);
    response.setSettings(configuration.responses());
    RequestLog log(request, id);
    log.open(configuration.responses(), options_.client.c_str(), STDERR_FILENO);
    const std::string fullHeader = configuration.wantsFullHeader() ? request.headerFields() : "";
    const RequestParts parts{request, request, options_.program.c_str(), fullHeader.c_str()};
    HostClient client(request, metrics_, configuration.readWriteTimeout(), deadline);
    HostExchange exchange(parts, configuration, options_.client, response, log);
    const RequestEnd end = exchange.serve(reinterpret_cast<ve_hclient_t*>(static_cast<QuilClient*>(&client)));
    metrics_.count(end, log, request.isGone());
    if (end.code != 0 && !request.isGone()) {
        metrics_.keep({std::time(nullptr), id.text(), textOf(request.get("REQUEST_METHOD")),
                       textOf(request.get("PATH_INFO")), client.serverEntry().GetTextEx(), end.code,
                       end.status.code, log.milliseconds(RequestLog::kBody) / 1e3});
    }
    return !response.isCut();
}
