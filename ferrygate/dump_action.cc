#include <sys/stat.h>

#include <sstream>

#include "commons/exceptions.h"
#include "commons/replace_file.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"

namespace tavik {

void RetrieveDumpAction::execute() {
    status->setAgentParams(cfg().host);
    status->setAgentOperation(MigrationStatus::opWait);
    status->saveFile();

    std::string command;
    try {
        const boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg().agentName);
        command = sh_quote(agent->getEffectiveInterpreter());
        command += " " + sh_quote(remoteAgentPath(agent->getEntryPoint()));
        for (const std::string& arg : args) command += " " + sh_quote(arg);
        if (cfg().noContent) command += " " + sh_quote("--no-content");
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(CantRetrieveDump, e);
    }

    startStatusRefresh(this);
    std::ostringstream out;
    std::ostringstream err;
    std::istringstream in(input);
    const int rc = execRoot(command, in, out, err, false, false);
    if (rc != 0) TAVIK_RAISE(CantRetrieveDumpFile, err.str());
    stopStatusRefresh();

    const std::string remoteDump = cfg().agentDir + "/dump.xml";
    takeFile(remoteDump);
    getSsh()->get(theSession->getDumpFileName(), remoteDump);
    // A missing remote dump downloads as an empty file without an error.
    struct stat st;
    if (stat(theSession->getDumpFileName().c_str(), &st) != 0 || st.st_size == 0) {
        TAVIK_RAISE(CantRetrieveDumpFile, err.str() + "(the agent left no " + remoteDump + ")");
    }
    replaceFileText(cfg().sessionPath + "/dump-name", adminAccount(), theSession->getDumpFileName());
}

}  // namespace tavik
