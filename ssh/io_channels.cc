#include "ssh/io_channels.h"

#include "commons/checksum.h"
#include "commons/exceptions.h"
#include "ssh/libssh2pp.h"

namespace tavik {

IOReadChannel::~IOReadChannel() = default;
IOWriteChannel::~IOWriteChannel() = default;

int IOStreamReadChannel::read(char* buffer, unsigned size) {
    if (in_.eof()) return 0;
    in_.read(buffer, size);
    return static_cast<int>(in_.gcount());
}

int IOStreamWriteChannel::write(const char* buffer, unsigned size) {
    out_.write(buffer, size);
    return out_.fail() ? -1 : static_cast<int>(size);
}

int SshChannelWriteChannel::write(const char* buffer, unsigned size) {
    return static_cast<int>(channel_.write(buffer, size));
}

void pump_write(IOWriteChannel& out, char* buffer, int size) {
    checkProgramTerminated();
    while (size > 0) {
        const int n = out.write(buffer, static_cast<unsigned>(size));
        if (n < 0) {
            TAVIK_RAISE(StreamWrite);
        }
        buffer += n;
        size -= n;
    }
}

void pump(IOReadChannel& in, IOWriteChannel& out) {
    char buffer[65536];
    for (;;) {
        const int n = in.read(buffer, sizeof buffer);
        if (n == 0) return;
        if (n < 0) {
            TAVIK_RAISE(StreamRead);
        }
        pump_write(out, buffer, n);
    }
}

std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk) {
    return out.write(chunk.data, static_cast<std::streamsize>(chunk.size));
}

}  // namespace tavik
