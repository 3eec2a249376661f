// Owning wrappers over the SSH client library: a started, authenticated session and its channels.
#ifndef FERRYGATE_SSH_LIBSSH2PP_H
#define FERRYGATE_SSH_LIBSSH2PP_H

#include <libssh2.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "commons/handle.h"

namespace log4cpp {
class Category;
}

namespace tavik {

// Frees a channel; the release function of channel handles.
void rku_libssh2_channel_free(LIBSSH2_CHANNEL* channel);

namespace libssh2pp {

// One channel, freed (without an explicit close or EOF) on destruction. The channel must be
// destroyed before its session.
class Channel {
  public:
    // Takes ownership; null (a failed open) throws InvalidHandle.
    explicit Channel(LIBSSH2_CHANNEL* channel);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    virtual ~Channel();

    LIBSSH2_CHANNEL* get() const { return channel_.get(); }

    // True when data of either stream, or the peer's end of it, waits to be read.
    bool hasInput();
    // Processes whatever has arrived on the connection; false once the connection is broken.
    bool transportAlive();

    // Reads what is already queued for `stream` (0 standard output, 1 standard error), at most
    // `size` bytes, without waiting: 0 when nothing is there now or at the end. Throws
    // SshConnectionFault when the connection is broken. The session is blocking again afterwards.
    ssize_t readQueued(int stream, char* buffer, size_t size);

    static log4cpp::Category& logger;

  private:
    // Grants the peer again the room that reading has freed, once that is worth a message.
    void reopenWindow();

    Handle<LIBSSH2_CHANNEL*, rku_libssh2_channel_free, DefaultValidationPolicy<LIBSSH2_CHANNEL*>>
        channel_;
};

// The SSH protocol over a connected socket that the caller keeps open for the session's life.
// In compatibility mode the session offers only the legacy key exchange and, once authorised,
// keeps one idle "reserve" channel open until it is destroyed.
class Session {
  public:
    // Starts the protocol on `socket`. With `noEncryption` the session insists on the "none"
    // cipher in both directions; a library that cannot offer it fails the start. Throws
    // InvalidHandle or UnableToStartSshSession (with the library's last error text), and
    // SshConnectionFault when the server stays silent for the silence limit.
    Session(int socket, bool noEncryption, bool compatibility);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    virtual ~Session();

    // Tries "password", then "keyboard-interactive" (every prompt answered with `password`),
    // each only when the server offers it. Throws SshAuthorizationFailed when neither succeeds.
    void authorize(const std::string& user, const std::string& password);

    LIBSSH2_SESSION* get() const { return session_.get(); }
    // The negotiated server-to-client cipher.
    const std::string& encryption() const { return encryption_; }
    bool compatibility() const { return compatibility_; }
    // The reserve channel of compatibility mode; null otherwise or before authorisation.
    const Channel* reserveChannel() const { return reserve_.get(); }
    // The library's text for the last failure on this session.
    std::string lastError() const;
    // True when the last failure on this session was the connection's: the server stayed silent
    // for the silence limit, or the socket broke.
    bool connectionLost() const;
    // Sends a keep-alive request when one is due, which a live server answers even while its
    // command is silent. Throws SshConnectionFault once a request has had no answer, nor any
    // other byte, for the silence limit: a peer that goes quiet on an open connection would
    // otherwise be waited for for ever.
    void checkAlive();
    // Waits up to `timeout` milliseconds, or until a signal arrives, for `channel` to have
    // input; true when it has. Throws SshConnectionFault when the connection breaks.
    bool waitForInput(Channel& channel, int timeout);
    // Seconds the server may stay silent: SSH_SILENCE_TIMEOUT of the product configuration, or
    // 120. Every blocking call on the session gives up after as long.
    static unsigned silenceLimit();

    // The keyboard-interactive responder: answers every prompt with the password that
    // `*abstract` points to (a std::string).
    static void userauth_callback(const char* name, int name_len, const char* instruction,
                                  int instruction_len, int num_prompts,
                                  const LIBSSH2_USERAUTH_KBDINT_PROMPT* prompts,
                                  LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract);

    static log4cpp::Category& logger;

  private:
    bool preferMethod(int method, const char* preference);
    unsigned keepAliveInterval() const;
    void openReserveChannel();
    // Throws SshConnectionFault when the last library call failed because the connection is gone.
    void raiseIfDisconnected();

    Handle<LIBSSH2_SESSION*, libssh2_session_free, DefaultValidationPolicy<LIBSSH2_SESSION*>>
        session_;
    int socket_;
    unsigned silenceLimit_;
    // A keep-alive request sent at requestSent_ still waits for its answer.
    bool awaitingAnswer_ = false;
    std::chrono::steady_clock::time_point requestSent_;
    std::string encryption_;
    bool compatibility_;
    std::unique_ptr<Channel> reserve_;
};

}  // namespace libssh2pp
}  // namespace tavik

#endif  // FERRYGATE_SSH_LIBSSH2PP_H
