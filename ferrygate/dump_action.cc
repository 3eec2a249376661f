#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstring>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"

namespace tavik {

namespace {

// The byte count that `wc -c` printed before the file's name, or -1 for anything else: the
// text comes from the source host.
int64_t parseCount(const std::string& text) {
    std::istringstream words(text);
    std::string count;
    words >> count;
    if (count.find_first_not_of("0123456789") != std::string::npos) return -1;
    try {
        return boost::lexical_cast<int64_t>(count);
    } catch (const boost::bad_lexical_cast&) {
        return -1;  // empty, or too large
    }
}

}  // namespace

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
    const int64_t received = env().fileSize(localDump);
    if (catRc != 0 || received <= 0) {
        TAVIK_RAISE(CantRetrieveDumpFile, err.str() + "(the agent left no " + remoteDump + ")");
    }
    // A channel that closes early without an exit status reads as a success, and the dump has
    // no sum to catch it: its length on the source host settles whether all of it arrived.
    std::ostringstream count;
    std::ostringstream countErr;
    const int countRc =
        env().exec(shellWords({"wc", "-c", "--", remoteDump}), count, countErr, true);
    const int64_t expected = countRc == 0 ? parseCount(count.str()) : -1;
    if (expected < 0) {
        TAVIK_RAISE(CantRetrieveDumpFile,
                    "cannot tell the length of " + remoteDump + ": " + countErr.str());
    }
    if (expected != received) {
        logger.errorStream() << "Received " << received << " bytes of " << remoteDump
                             << ", which holds " << expected;
        TAVIK_RAISE(SshConnectionFault);
    }
    env().replaceFileText(cfg().sessionPath + "/dump-name", localDump);
}

}  // namespace tavik
