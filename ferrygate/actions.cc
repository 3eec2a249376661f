// The short actions: scout, dumping status, agent removal.
#include "ferrygate/actions.h"

#include <unistd.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "utils/files.h"

namespace tavik {

void SendScoutAction::execute() {
    status->setAgentParams(cfg().host);
    status->setAgentOperation(MigrationStatus::opDeploy);
    status->saveFile();

    const std::string scoutFile = files::getScoutFileName();
    std::ifstream script(scoutFile.c_str(), std::ios::binary);
    if (!script) TAVIK_RAISE(UnableToOpenScoutFile, scoutFile);

    // Without a writable result file the scout still runs; only its report is lost.
    std::ofstream resultFile(theSession->getScoutResultFileName().c_str(),
                             std::ios::binary | std::ios::trunc);
    DiscardStream nowhere;
    std::ostream& out = resultFile.is_open() ? static_cast<std::ostream&>(resultFile) : nowhere;
    std::ostringstream err;
    const int rc = execRoot("perl", script, out, err, false, true);
    if (rc != 0) TAVIK_RAISE(FailedToExecuteScout, rc, err.str());
    resultFile.close();

    status->setAgentOperation(MigrationStatus::opWait);
    status->saveFile();
}

void GetDumpingStatusAction::execute() {
    status->setAgentParams(cfg().host);
    status->setAgentOperation(MigrationStatus::opWait);
    status->saveFile();
    try {
        const std::string remote = cfg().agentDir + "/" + files::getRemoteDumpingStatusFileName();
        takeFile(remote);
        getSsh()->get(std::cout, remote);
        std::cout.flush();
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(DumpStatusError, e);
    }
}

void RemoveDumpingStatusAction::execute() {
    // The remote file's name taken as a local path, and the result not looked at: the
    // controlling process relies on exactly this.
    const std::string path = cfg().agentDir + "/" + files::getRemoteDumpingStatusFileName();
    unlink(path.c_str());
}

void RemoveAgentAction::execute() {
    try {
        DiscardStream out;
        DiscardStream err;
        std::istringstream empty;
        execRoot(shellWords({"rm", "-rf", cfg().agentDir}), empty, out, err, false, false);
    } catch (const std::exception&) {
        // Removal ends a migration that has already succeeded or failed on its own terms; a
        // leftover agent directory must not change that outcome.
    }
}

}  // namespace tavik
