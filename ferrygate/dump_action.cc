#include <cerrno>
#include <cstring>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"

namespace tavik {

void RetrieveDumpAction::execute() {
    status->setAgentParams(cfg().host);
    status->setAgentOperation(MigrationStatus::opWait);
    status->saveFile();

    std::string command;
    try {
        std::vector<std::string> words = args;
        if (cfg().noContent) words.push_back("--no-content");
        command = agentCommand(*env().agent(cfg().agentName), words);
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(CantRetrieveDump, e);
    }

    startStatusRefresh();
    std::ostringstream out;
    std::ostringstream err;
    std::istringstream in(input);
    const int rc = execRoot(command, in, out, err, false, false);
    stopStatusRefresh();
    if (rc != 0) TAVIK_RAISE(CantRetrieveDumpFile, err.str());

    const std::string remoteDump = cfg().agentDir + "/dump.xml";
    const std::string localDump = env().session().getDumpFileName();
    takeFile(remoteDump);
    std::unique_ptr<std::ofstream> dump = env().openForWrite(localDump, false);
    if (!dump) TAVIK_RAISE(FileWrite, localDump, std::strerror(errno));
    std::ostringstream catErr;
    const int catRc = env().get(*dump, remoteDump, Ssh::nullCounter, &catErr);
    dump->close();
    if (!*dump) TAVIK_RAISE(FileWrite, localDump, std::strerror(errno));
    if (catRc != 0 || env().fileSize(localDump) <= 0) {
        TAVIK_RAISE(CantRetrieveDumpFile, err.str() + "(the agent left no " + remoteDump + ")");
    }
    env().replaceFileText(cfg().sessionPath + "/dump-name", localDump);
}

}  // namespace tavik
