#include "ferrygate/env.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/unique_fd.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/options.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/files.h"

namespace tavik {

namespace fs = boost::filesystem;

namespace {

log4cpp::Category& logger() { return log4cpp::Category::getInstance("p.Env"); }

// The file system of `path`, or of its nearest existing ancestor when the directory is still to
// be made.
std::string existingAncestor(const std::string& path) {
    fs::path dir = fs::absolute(path);
    while (!dir.empty() && !pathExists(dir)) dir = dir.parent_path();
    return dir.empty() ? "/" : dir.string();
}

}  // namespace

Env::Env(const SessionFiles& session) : session_(session) {}

Env::~Env() = default;

int Env::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput) {
    std::istream none(nullptr);
    return exec(command, none, out, err, quietOutput, false, Ssh::nullCounter);
}

int Env::get(std::ostream& out, const std::string& remotePath, Ssh::Counter& counter,
             std::ostream* err) {
    std::istream none(nullptr);
    std::ostringstream ignored;
    return exec("cat " + sh_quote(remotePath), none, out, err ? *err : ignored, true, true,
                counter);
}

int Env::put(std::istream& in, const std::string& remotePath) {
    std::ostringstream ignoredOutput;
    std::ostringstream ignoredErrors;
    return exec("cat > " + sh_quote(remotePath), in, ignoredOutput, ignoredErrors, true, true,
                Ssh::nullCounter);
}

std::string Env::agentsDir() const { return files::agents::getDir(); }

std::string Env::scoutFile() const { return files::getScoutFileName(); }

FileOwner Env::adminOwner() const { return adminAccount(); }

boost::shared_ptr<Agent> Env::agent(const std::string& name) {
    if (!agents_) agents_.reset(new AgentsFactory(agentsDir()));
    return agents_->getAgent(name);
}

MigrationStatusPtr Env::createStatus() {
    return createMigrationStatusFile(session_.getStatusFileName(), adminOwner());
}

void Env::replaceFile(const std::string& path, const std::function<void(std::ostream&)>& write,
                      bool durable) {
    tavik::replaceFile(
        path, adminOwner(),
        [&](const std::string& temporary) {
            std::ofstream out(temporary.c_str(), std::ios::binary | std::ios::trunc);
            write(out);
            out.close();
            if (!out) TAVIK_RAISE(FileWrite, path, std::strerror(errno));
        },
        durable);
}

void Env::replaceFileText(const std::string& path, const std::string& text, bool durable) {
    replaceFile(
        path, [&](std::ostream& out) { out << text; }, durable);
}

std::unique_ptr<std::ofstream> Env::openForWrite(const std::string& path, bool append) {
    // Downloads are the product's, not the world's: rw-r-----.
    UmaskScope downloadsAre0640(026);
    std::unique_ptr<std::ofstream> out(new std::ofstream(
        path.c_str(), std::ios::binary | (append ? std::ios::app : std::ios::trunc)));
    if (!out->is_open()) return nullptr;
    return out;
}

int64_t Env::fileSize(const std::string& path) const {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

void Env::makeDir(const std::string& path, unsigned mode) {
    UmaskScope umask022(022);
    const FileOwner owner = adminOwner();
    make_dir(path, owner.uid, owner.gid, mode);
}

uint64_t Env::freeSpace(const std::string& path) const {
    const std::string existing = existingAncestor(path);
    struct statfs64 fs;
    if (statfs64(existing.c_str(), &fs) != 0) TAVIK_RAISE(CantStatFS, existing, strerror(errno));
    return static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize);
}

void Env::giveToAdmin(const std::string& path) {
    const FileOwner owner = adminOwner();
    if (chown(path.c_str(), owner.uid, owner.gid) != 0) {
        logger().warnStream() << "Cannot give " << path << " to hmxadm: " << strerror(errno);
    }
}

void Env::removeFile(const std::string& path) { unlink(path.c_str()); }

LiveEnv::LiveEnv(const config& cfg, const SessionFiles& session) : Env(session), cfg_(cfg) {}

LiveEnv::~LiveEnv() = default;

Ssh& LiveEnv::ssh() {
    if (!ssh_) {
        const unsigned short port = cfg_.port == 0 ? 22 : static_cast<unsigned short>(cfg_.port);
        HostKeyPolicy hostKeys = HostKeyPolicy::configured();
        hostKeys.pinned = cfg_.hostKey;
        ssh_.reset(
            new Ssh(cfg_.host, cfg_.login, cfg_.password, cfg_.noEncryption, port, hostKeys));
        ssh_->setAlarm(alarm_);
    }
    return *ssh_;
}

int LiveEnv::exec(const std::string& command, std::istream& in, std::ostream& out,
                  std::ostream& err, bool quietOutput, bool quietInput, Ssh::Counter& counter) {
    return ssh().exec(command, in, out, err, quietOutput, quietInput, counter);
}

void LiveEnv::setAlarm(Alarm* alarm) {
    alarm_ = alarm;
    if (ssh_) ssh_->setAlarm(alarm);
}

}  // namespace tavik
