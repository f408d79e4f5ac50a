// Trial: the server that is tried, and how it is asked.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Conversation.h"
#include "Options.h"
#include "Request.h"

// Whether a rule holds cannot be seen; what() tells why.
class Skipped : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Trial {
  public:
    // Looks the host up; throws Unreachable when it has no address.
    explicit Trial(const Options& options);

    const Options& options() const { return options_; }
    const Server& server() const { return server_; }
    milliseconds pause() const;

    // A request of that page as a web server would make it; by default of the page of the command line.
    Request request() const { return request(options_.path); }
    Request request(const std::string& path) const;
    Request post(const std::string& path, std::string body) const;
    Request document() const;  // of the page that asks for a file

    // A whole conversation.
    Answer converse(const Request& request, const Manner& manner = {}) const;

    // Throws Broken, which begins with the circumstances, unless the answer is whole.
    static Answer whole(const std::string& circumstances, Answer answer);
    Answer wholeAnswer(const std::string& circumstances, const Request& request,
                       const Manner& manner = {}) const {
        return whole(circumstances, converse(request, manner));
    }
    // The same from the page that asks for a file; throws Skipped when it asks for none.
    Answer wholeDocument(const std::string& circumstances, const Manner& manner) const;

    // The usual request's answer, asked for once.
    const Answer& plain();

    // After something that the server must survive: it answers as usual.
    void expectAlive(const std::string& circumstances) const;

    // One answer for each size. To more than every server must take, it may close instead: Skipped.
    using OfSize = std::function<Answer(std::size_t)>;
    static void trySizes(const char* what, const std::vector<std::size_t>& sizes, const OfSize& answer);

  private:
    const Options& options_;
    Server server_;
    std::optional<Answer> plain_;
};

// Bytes of every value, each size's alike.
std::string bytesOf(std::size_t size);

// Something that holds whole messages, marks and footers.
std::string messagesInside();
