#include "ferrygate/session.h"

#include <boost/filesystem/operations.hpp>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "utils/files.h"
#include "utils/tavik_ugid.h"

namespace fs = boost::filesystem;

namespace tavik {

SessionFiles* theSession = nullptr;

namespace {
const unsigned kSessionMode = 0750;
}  // namespace

SessionFiles::SessionFiles(const std::string& dir) : dir_(dir) {
    const fs::path session(dir_);
    // The group is the uid of hmxadm on purpose: the rest of the product expects that number.
    const unsigned group = get_user_id("hmxadm");
    if (!pathExists(session)) make_dir(session, 0, group, kSessionMode);
    if (!isDirectory(session)) {
        TAVIK_RAISE(UnableToCreateSession, "Unable to create session directory");
    }
    const fs::path archives = session / "archives";
    if (!pathExists(archives)) make_dir(archives, 0, group, kSessionMode);
    // Re-examines the session directory, not archives: a run can go on without archives.
    if (!isDirectory(session)) {
        TAVIK_RAISE(UnableToCreateSession, "Unable to create session archives directory");
    }
}

std::string SessionFiles::getDir() const { return dir_; }
std::string SessionFiles::getCidFilesDir() const { return dir_; }
std::string SessionFiles::getCidFile(const std::string& name) const { return dir_ + "/" + name; }
std::string SessionFiles::getLogFileName() const { return dir_ + "/migration.log"; }
std::string SessionFiles::getResultFileName() const { return dir_ + "/migration.result"; }
std::string SessionFiles::getStatusFileName() const { return dir_ + "/migration.status"; }

std::string SessionFiles::getDeploymentStatusFileName() const {
    return dir_ + "/agent-deployment.status";
}

std::string SessionFiles::getScoutResultFileName() const { return dir_ + "/scout-result.xml"; }
std::string SessionFiles::getDumpFileName() const { return dir_ + "/dump.xml"; }

std::string SessionFiles::getDumpingStatusFileName() const {
    return dir_ + "/" + files::getRemoteDumpingStatusFileName();
}

std::string SessionFiles::getTavikDumpFileName() const { return dir_ + "/restore.xml"; }

void SessionFiles::remove() { fs::remove_all(fs::path(dir_)); }

SessionLifetimeController::SessionLifetimeController(const std::string& dir) {
    // A throwing constructor frees the object itself, and theSession stays null.
    theSession = new SessionFiles(dir);
}

SessionLifetimeController::~SessionLifetimeController() {
    delete theSession;
    theSession = nullptr;
}

MigrationStatusPtr createMigrationStatusFile() {
    return createMigrationStatusFile(theSession->getStatusFileName(), adminAccount());
}

}  // namespace tavik
