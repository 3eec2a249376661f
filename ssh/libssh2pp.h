// Owning wrappers over the SSH client library: a started, authenticated session and its channels.
//
// The library never waits here: the session is non-blocking from its start, and every call that
// would block is completed by Session::complete, which waits on the socket with poll() on a
// clock of its own. A signal therefore never ends a call half-way, and switching one channel's
// mode cannot change how the others behave (the library has one mode per session).
#ifndef FERRYGATE_SSH_LIBSSH2PP_H
#define FERRYGATE_SSH_LIBSSH2PP_H

#include <libssh2.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <type_traits>

#include "commons/handle.h"
#include "ssh/known_hosts.h"

namespace log4cpp {
class Category;
}

namespace tavik {
namespace libssh2pp {

using Clock = std::chrono::steady_clock;

class Session;

// One channel of a session, which must outlive it. Every call returns once the library is done
// with it, as a blocking call would.
class Channel {
  public:
    // Takes ownership; null (a failed open) throws InvalidHandle.
    Channel(Session& session, LIBSSH2_CHANNEL* channel);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    // Closes the channel if it is still open, waiting a few seconds at most for the peer, and
    // frees it (what the peer does not answer in time the session frees at its own end).
    virtual ~Channel();

    LIBSSH2_CHANNEL* get() const { return channel_; }

    // Sends the "exec" request for `command`; false when the server refuses it.
    bool exec(const std::string& command);
    // Writes up to `size` bytes to the command's standard input: the count written, or -1.
    ssize_t write(const char* buffer, size_t size);
    // False when the EOF could not be sent.
    bool sendEof();
    // True once the peer's EOF has come and nothing before it is left unread.
    bool eof();
    // Waits for the peer to close the channel.
    void waitClosed();
    // After the close: the command's exit status, or 128 plus the number of the signal that
    // ended it (255 for a signal this system does not know).
    int exitStatus();

    // True when data of either stream, or the peer's end of it, waits to be read.
    bool hasInput();
    // Processes whatever has arrived on the connection; false once the connection is broken.
    bool transportAlive();
    // Reads what is already queued for `stream` (0 standard output, 1 standard error), at most
    // `size` bytes, without waiting: 0 when nothing is there now or at the end.
    ssize_t readQueued(int stream, char* buffer, size_t size);

    // Every call above but hasInput throws SshConnectionFault when the connection is lost.

    static log4cpp::Category& logger;

  private:
    // Grants the peer again the room that reading has freed, once that is worth a message.
    void reopenWindow();

    Session& session_;
    LIBSSH2_CHANNEL* channel_;
};

// The SSH protocol over a connected socket that the caller keeps open for the session's life.
// In compatibility mode the session offers only the legacy key exchange and, once authorised,
// keeps one idle "reserve" channel open until it is destroyed.
class Session {
  public:
    // Starts the protocol on `socket`. Until authorize() has returned, the server has until
    // `deadline` in all; after that, each wait ends after the silence limit. With
    // `noEncryption` the session prefers the "none" cipher in both directions; a library
    // without it logs a warning and the session stays encrypted. Throws InvalidHandle,
    // UnableToStartSshSession (with the library's last error text), and SshConnectionFault when
    // the deadline passes.
    Session(int socket, bool noEncryption, bool compatibility, Clock::time_point deadline);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    virtual ~Session();

    // Refuses a server whose host key `policy` does not accept for `host` at `port`, before
    // anything secret is sent (see verifyHostKey in ssh/known_hosts.h).
    void verifyHostKey(const std::string& host, unsigned short port, const HostKeyPolicy& policy);

    // Tries "password", then "keyboard-interactive" (every prompt answered with `password`),
    // each only when the server offers it. Throws SshAuthorizationFailed when neither succeeds,
    // SshConnectionFault when the connection is lost or the deadline passes on the way.
    void authorize(const std::string& user, const std::string& password);

    // A new "session" channel. Throws SshConnectionFault when the connection is lost, and
    // InvalidHandle when the server refuses the channel.
    std::unique_ptr<Channel> openChannel(unsigned window, unsigned packet);

    LIBSSH2_SESSION* get() const { return session_.get(); }
    // The negotiated server-to-client cipher.
    const std::string& encryption() const { return encryption_; }
    bool compatibility() const { return compatibility_; }
    // The reserve channel of compatibility mode; null otherwise or before authorisation.
    const Channel* reserveChannel() const { return reserve_.get(); }
    // The library's text for the last failure on this session.
    std::string lastError() const;
    // The one translation of the library's failures: throws SshConnectionFault, logging what
    // was being done and the library's text, when the last failure on this session means that
    // the connection is gone; returns otherwise, and the caller raises its own kind.
    void raiseIfConnectionLost(const std::string& doing) const;
    // Sends a keep-alive request when one is due, which a live server answers even while its
    // command is silent. Throws SshConnectionFault once a request has had no answer, nor any
    // other byte, for the silence limit: a peer that goes quiet on an open connection would
    // otherwise be waited for for ever.
    void checkAlive();
    // Waits up to `timeout` milliseconds for `channel` to have input; true when it has. Throws
    // SshConnectionFault when the connection breaks.
    bool waitForInput(Channel& channel, int timeout);
    // Seconds the server may stay silent once logged in: SSH_SILENCE_TIMEOUT of the product
    // configuration, or 120.
    static unsigned silenceLimit();
    // Seconds that connecting, the SSH handshake and the log-in may take together:
    // SSH_CONNECT_TIMEOUT of the product configuration, or 30.
    static unsigned connectLimit();

    // Runs `call`, one call of the library on this session, to its end: while it answers that
    // it would block, waits for the socket in the direction the library needs, and calls it
    // again with the same arguments, as the library requires. Returns the call's result. Throws
    // SshConnectionFault when a wait outlasts the silence limit, or passes the deadline of the
    // start or `giveUp`, whichever comes first.
    template <class Call>
    auto complete(Call call, Clock::time_point giveUp = Clock::time_point::max())
        -> decltype(call()) {
        for (;;) {
            // A call that answers with a pointer reports "would block" through the last error
            // only, which must not be left over from an earlier call.
            if constexpr (std::is_pointer<decltype(call())>::value) {
                libssh2_session_set_last_error(session_.get(), 0, nullptr);
            }
            const auto result = call();
            if (!wouldBlock(result)) return result;
            waitForSocket(giveUp);
        }
    }

    // The keyboard-interactive responder: answers every prompt with the password that
    // `*abstract` points to (a std::string).
    static void userauth_callback(const char* name, int name_len, const char* instruction,
                                  int instruction_len, int num_prompts,
                                  const LIBSSH2_USERAUTH_KBDINT_PROMPT* prompts,
                                  LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract);

    static log4cpp::Category& logger;

  private:
    bool wouldBlock(long result) const { return result == LIBSSH2_ERROR_EAGAIN; }
    template <class T>
    bool wouldBlock(T* result) const {
        return result == nullptr &&
               libssh2_session_last_errno(session_.get()) == LIBSSH2_ERROR_EAGAIN;
    }
    void waitForSocket(Clock::time_point giveUp);
    void preferNoEncryption();
    unsigned keepAliveInterval() const;

    Handle<LIBSSH2_SESSION*, libssh2_session_free, DefaultValidationPolicy<LIBSSH2_SESSION*>>
        session_;
    int socket_;
    unsigned silenceLimit_;
    // Until the log-in is done, the end of the time the server has for connecting.
    Clock::time_point deadline_;
    bool connecting_ = true;
    // A keep-alive request sent at requestSent_ still waits for its answer.
    bool awaitingAnswer_ = false;
    Clock::time_point requestSent_;
    std::string encryption_;
    bool compatibility_;
    std::unique_ptr<Channel> reserve_;
};

}  // namespace libssh2pp
}  // namespace tavik

#endif  // FERRYGATE_SSH_LIBSSH2PP_H
