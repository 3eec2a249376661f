// Byte channels between streams and the SSH connection, and the pump that moves data across.
#ifndef FERRYGATE_SSH_IO_CHANNELS_H
#define FERRYGATE_SSH_IO_CHANNELS_H

#include <cstddef>
#include <istream>
#include <ostream>
#include <streambuf>

namespace tavik {

namespace libssh2pp {
class Channel;
}

class IOReadChannel {
  public:
    virtual ~IOReadChannel();
    // Up to `size` bytes into `buffer`: the count read, 0 at the end of the data, -1 on error.
    virtual int read(char* buffer, unsigned size) = 0;
};

class IOWriteChannel {
  public:
    virtual ~IOWriteChannel();
    // Writes some of the `size` bytes: the count written (0 means "try again"), -1 on error.
    virtual int write(const char* buffer, unsigned size) = 0;
};

// Reads a borrowed stream. A stream that cannot be read (failed, or without a buffer) reads as
// empty: this channel never reports an error.
class IOStreamReadChannel : public IOReadChannel {
  public:
    explicit IOStreamReadChannel(std::istream& in) : in_(in) {}
    int read(char* buffer, unsigned size) override;

  private:
    std::istream& in_;
};

// Writes a borrowed stream; -1 once the stream has failed.
class IOStreamWriteChannel : public IOWriteChannel {
  public:
    explicit IOStreamWriteChannel(std::ostream& out) : out_(out) {}
    int write(const char* buffer, unsigned size) override;

  private:
    std::ostream& out_;
};

// Writes to the standard input of the command on a borrowed channel.
class SshChannelWriteChannel : public IOWriteChannel {
  public:
    explicit SshChannelWriteChannel(libssh2pp::Channel& channel) : channel_(channel) {}
    // Every failure is -1 but the connection's: a server silent for the silence limit, or a
    // broken socket, throws SshConnectionFault.
    int write(const char* buffer, unsigned size) override;

  private:
    libssh2pp::Channel& channel_;
};

// A stream buffer that lends the free part of its put area, so that a download is read straight
// into it: one copy fewer for every byte on the path that moves the most data.
class LendingBuffer : public std::streambuf {
  public:
    // Free room in the put area, at least one byte: a full area is handed on first.
    char* lend(size_t& size) {
        if (pptr() == epptr()) overflow(traits_type::eof());
        size = static_cast<size_t>(epptr() - pptr());
        return pptr();
    }
    // The first `size` bytes lent are filled.
    void commit(size_t size) { pbump(static_cast<int>(size)); }
};

// Writes all `size` bytes to `out`, retrying short writes. Checks the termination flag first, so
// every transfer stops at its next chunk once a stop is requested (MigrationTerminatedException).
// Throws StreamWrite when a write fails. A size of 0 or less writes nothing.
void pump_write(IOWriteChannel& out, char* buffer, int size);

// Copies everything from `in` to `out` in chunks of 64 KiB. Throws StreamRead or StreamWrite.
void pump(IOReadChannel& in, IOWriteChannel& out);

// Bytes for a log line, written as they are.
struct memchunk_log {
    memchunk_log(const char* data, size_t size) : data(data), size(size) {}
    const char* data;
    size_t size;
};

std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk);

}  // namespace tavik

#endif  // FERRYGATE_SSH_IO_CHANNELS_H
