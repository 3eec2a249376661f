// The short actions: scout, dumping status, agent removal.
#include "ferrygate/actions.h"

#include <fstream>
#include <iostream>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/files.h"

namespace tavik {

void SendScoutAction::execute() {
    status->setAgentParams(cfg().host);
    status->setAgentOperation(MigrationStatus::opDeploy);
    status->saveFile();

    const std::string scoutFile = env().scoutFile();
    std::ifstream script(scoutFile.c_str(), std::ios::binary);
    if (!script) TAVIK_RAISE(UnableToOpenScoutFile, scoutFile);

    // Without a writable result file the scout still runs; only its report is lost.
    std::unique_ptr<std::ofstream> resultFile =
        env().openForWrite(env().session().getScoutResultFileName(), false);
    DiscardStream nowhere;
    std::ostream& out = resultFile ? static_cast<std::ostream&>(*resultFile) : nowhere;
    std::ostringstream err;
    const int rc = execRoot("perl", script, out, err, false, true);
    if (rc != 0) TAVIK_RAISE(FailedToExecuteScout, rc, err.str());
    if (resultFile) resultFile->close();

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
        env().get(std::cout, remote, Ssh::nullCounter);
        std::cout.flush();
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(DumpStatusError, e);
    }
}

void RemoveDumpingStatusAction::execute() {
    // The remote file's name taken as a local path, and the result not looked at: the
    // controlling process relies on exactly this.
    env().removeFile(cfg().agentDir + "/" + files::getRemoteDumpingStatusFileName());
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
