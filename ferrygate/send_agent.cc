#include "ferrygate/send_agent.h"

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/exceptions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/files.h"

namespace tavik {

namespace fs = boost::filesystem;

log4cpp::Category& SendAgentAction::logger = log4cpp::Category::getInstance("p.SendAgentAction");

namespace {

bool isSingleComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

void SendAgentAction::execute() {
    status->setAgentParams(cfg().host);
    status->setAgentOperation(MigrationStatus::opDeploy);
    status->saveFile();
    logger.noticeStream() << "Copying agent " << cfg().agentName << " to the remote host.";

    // Everything that can be found wrong on this host is, before the source host is touched.
    const fs::path agents(env().agentsDir());
    const fs::path shared = agents / "shared";
    if (!isDirectory(shared)) TAVIK_RAISE(NoSharedAgentsDirectory);
    const fs::path agentDir = agents / cfg().agentName;
    if (!isSingleComponent(cfg().agentName) || !isDirectory(agentDir)) {
        TAVIK_RAISE(NoAgentDirectory, cfg().agentName);
    }
    const boost::shared_ptr<Agent> agent = env().agent(cfg().agentName);

    sendTree(shared);
    sendTree(agentDir);

    status->setAgentOperation(MigrationStatus::opWait);
    status->saveFile();
    logger.notice("Getting agent deployment status");

    const std::string inner =
        "cd " + sh_quote(cfg().agentDir) + " && " + agentCommand(*agent, {"--get-status"});
    const std::string command = shellWords({"sh", "-c", inner});
    // Emptied before the request: a failing request must not leave an earlier answer behind.
    const std::string statusFile = env().session().getDeploymentStatusFileName();
    std::unique_ptr<std::ofstream> out = env().openForWrite(statusFile, false);
    if (!out) TAVIK_RAISE(FileWrite, statusFile, strerror(errno));
    env().giveToAdmin(statusFile);
    std::ostringstream err;
    if (execRoot(command, *out, err, false) != 0) {
        TAVIK_RAISE(CantRequestAgentStatus, command, err.str());
    }
    out->close();
    if (!*out) TAVIK_RAISE(FileWrite, statusFile, strerror(errno));
}

void SendAgentAction::sendTree(const fs::path& local) {
    const fs::path base(cfg().agentDir);
    recursive_dir_walk_sync(local, base,
                            [this, &base](const fs::path& entry, const fs::path& remote) {
                                return sendFile(base, entry, remote);
                            });
}

bool SendAgentAction::sendFile(const fs::path& base, const fs::path& local,
                               const fs::path& remote) {
    if (!isDirectory(local)) {
        logger.infoStream() << "remote <copy " << remote.string() << " (from " << local.string()
                            << ")";
        std::ifstream in(local.string().c_str(), std::ios::binary);
        env().put(in, remote.string());
        return true;
    }
    for (fs::path step = remote; !step.empty() && step != base; step = step.parent_path()) {
        if (step.filename() == "control") return false;
    }
    const std::string dir = remote.empty() ? cfg().agentDir : remote.string();
    logger.infoStream() << "remote mkdir " << dir;
    std::ostringstream out;
    std::ostringstream err;
    if (execRoot(shellWords({"mkdir", "-p", dir}), out, err, false) != 0) {
        TAVIK_RAISE(CantCreateAgentDirectory, dir, err.str());
    }
    if (execRoot(shellWords({"chown", cfg().login, dir}), out, err, false) != 0) {
        TAVIK_RAISE(CantCreateAgentDirectory, dir, err.str());
    }
    return true;
}

}  // namespace tavik
