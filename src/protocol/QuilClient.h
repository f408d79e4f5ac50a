// QuilClient: the protocol client of one connection. It chooses an application server, sends the request and
// serves the server's messages; how bytes travel is left to a derived class.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Server/Common_Classes/UData.h"
#include "Server/Common_Classes/UText.h"
#include "config/Attribute.h"
#include "config/Stanza.h"
#include "platform/ValidityTag.h"
#include "protocol/ConnectionSettings.h"
#include "protocol/QuilRequest.h"
#include "protocol/QuilTypes.h"
#include "protocol/ServerSelection.h"
#include "protocol/ServerState.h"
#include "wire/DripClient.h"

// Splits a server entry, "host,port" or "sid,host,port", into three fields of 32 bytes each, NUL-terminated.
// Anything else, a field of more than 31 characters included, leaves all three empty. ServerEntry takes longer
// hosts.
void parse_zorbi_server_param(const char* entry, char* sid, char* host, char* port);

// One request a client: connect, send, dispatch, in this order. Operations report failure by a false result;
// afterwards the connection is of no use. Threads: one at a time. ConnectToQuilServer reads the client's
// configuration section: whoever may replace it holds it still meanwhile.
class QuilClient : public DripClient {
  public:
    // Called for every message of the server. data is NUL-terminated after length characters and valid during
    // the call. False stops the dispatch loop with failure.
    using DispatchCallback = bool (*)(QuilClient& client, TQUILReqType type, const char* data,
                                      std::uint32_t length, void* user);

    QuilClient();
    QuilClient(const QuilClient&);  // a fresh client; nothing is taken from the source
    QuilClient& operator=(const QuilClient&) = delete;
    ~QuilClient() override;

    // Serves one file request: reads the path into path, answers with the file's bytes, or with a false
    // result code when there is no such regular file, it is empty or unreadable, or the section's FILEROOT or
    // FILELIMIT keeps it back.
    virtual bool processFileRequest(CText& path, bool parseFilePaths);

    // Connects to one server, host and port or path and "" as ServerEntry has them; on success the server's address
    // and port are recorded with setServer(), else failConnection() is told why.
    virtual bool connectToServer(const char* host, const char* port) = 0;

    // Chooses a server from the section's list and connects: the only one; else the one that the query string
    // forces; else the one that the user reference points at; else a random one, going on to the others when
    // it fails. False when none could be reached, or without a section.
    virtual bool ConnectToQuilServer(TQuilRequest* request, Stanza* clientSection, const char* clientName,
                                     bool oneShotClient);

    // Sends the request message. Rewrites the request's HTTP_COOKIE: the client's own cookies are added to
    // it. False, too, when there is no memory for that.
    virtual bool SendQuilRequest(TQuilRequest* request);

    // Serves the server's messages until the end message (true) or a failure. Data and header messages are
    // acknowledged before the callback, which may be null, sees them.
    virtual bool DispatchQuilRequests(DispatchCallback callback, void* user, bool parseFilePaths);

    // Why the transport's last operation failed, an errno value (ETIMEDOUT after a wait that took too long); 0 when it
    // did not fail, or the transport does not tell.
    virtual int transportError() const { return 0; }

    // The client behind an opaque handle; null when the handle is null or no live client.
    static QuilClient* CastHandleToQuilClient(void* handle);

    // ---- server selection ----
    bool connectToServer(const char* entry);  // one server entry; its SID is not used
    void setClientName(const char* name);
    void setSID(const char* text);  // a text of more than 31 characters is refused: the SID stays as it was
    void resetSID();
    // Takes the SID from an argument of the query string; without it the SID stays as it was.
    void setSIDFromQueryString(const CText& query, const CText& argumentName);
    // Finds the user reference (28 or 36 characters): cookie, then query string, then body. False when there
    // is none.
    bool setUserRef(const TQuilRequest* request);
    // Decodes it: the SID of the short form, address and port of the long one; texts that it does not hold
    // are left.
    bool processUserRef(CText& sid, CText& ip, CText& port) const;
    // out = cookies (without those of the gateway's names where the section wants that) plus "VelartoClient=" and,
    // when several servers were to choose from and the one chosen has a SID or an IPv4 address, "Velarto_CGIIP=".
    // Returns out.
    CText& AddVelartoCookieWithIP(const CText& cookies, CText& out);

    // ---- messages ----
    bool CompleteQuilRequest(std::uint32_t type, bool ok);
    bool CompleteQuilDataRequest(std::uint32_t type, bool ok, const CData& data);
    void FileToNativePath(CText& path);  // backslashes become slashes

    TQuilRequest* AllocQuilRequest();             // the caller's, until FreeQuilRequest; null without memory
    void FreeQuilRequest(TQuilRequest* request);  // null is ignored

    // The scratch buffer, at least 5120 bytes, cut back to 32767 unless more is asked for.
    CData& GetScratchBuffer(std::uint32_t size);

    // The attempts that failed, "entry: reason" each, joined with "; ", where the section wants a log.
    const CText& failedAttempts() const { return failedAttempts_; }
    const CText& refusedFile() const { return refusedFile_; }  // the first that the server asked for in vain
    ServerChoice choice() const { return choice_; }            // of the server tried last
    const CText& serverEntry() const { return serverEntry_; }  // the whole list, or the element taken up last
    const char* sid() const { return sid_; }
    const char* serverIP() const { return serverIP_; }
    const char* serverPort() const { return serverPort_; }

  protected:
    static constexpr std::size_t kFieldSize = 32;

    // Records the connected server: the texts as configured, and where the connection really leads.
    void setServer(const char* addressText, const char* portText, std::uint32_t address, std::uint16_t port);
    // One that is not reached over IPv4: only its SID can name it in the route.
    void setServerBeyondIPv4(const char* addressText, const char* portText);

    const ConnectionSettings& settings() const { return settings_; }

    // Notes why a connection failed, an errno value or ServerState::kNoSuchHost, and in words; always false.
    bool failConnection(int cause, const char* reason);
    // The cause of the attempt that failed last.
    int failureCause() const { return failureCause_; }

  private:
    bool connectToChosenServer(const TQuilRequest* request, Stanza& clientSection);
    bool offer(ServerChoice choice, const ServerEntry& server, const ServerWishes& wishes,
               ServerState& state);
    bool attempt(ServerChoice choice, const ServerEntry& entry);
    void readWishes(const TQuilRequest& request, Stanza& clientSection, ServerWishes& wishes);
    bool hasRoute() const;
    void appendRoute(CText& out) const;
    bool readFile(const CText& path, CData& content, std::uint32_t& size) const;
    bool receiveFirstHeader(std::uint32_t& type, std::uint32_t& version);

    using HandleTag = ValidityTag<4212>;
    HandleTag handleTag_{this};
    CData scratch_;
    CText payload_;  // of the message being served; its memory serves every one
    CText clientName_;
    CText serverEntry_;
    ConnectionSettings settings_;
    int failureCause_ = 0;
    CText failureReason_;
    CText failedAttempts_;
    CText refusedFile_;
    char sid_[kFieldSize] = {};
    char serverIP_[ServerEntry::kPathSize] = {};  // address or path
    char serverPort_[kFieldSize] = {};
    char userRef_[128] = {};
    bool addRouteCookie_ = false;
    ServerChoice choice_ = ServerChoice::kNone;
    bool isBeyondIPv4_ = false;
    std::uint32_t connectedAddress_ = 0;  // host byte order
    std::uint16_t connectedPort_ = 0;
};
