// --deploy-agent: copies the shared agent files and one agent to the source host and stores the
// agent's answer to --get-status as the session's deployment status.
#ifndef FERRYGATE_FERRYGATE_SEND_AGENT_H
#define FERRYGATE_FERRYGATE_SEND_AGENT_H

#include <boost/filesystem/path.hpp>

#include "ferrygate/action.h"

namespace log4cpp {
class Category;
}

namespace tavik {

// Throws NoSharedAgentsDirectory, NoAgentDirectory (both before connecting), AgentNotFound,
// CantCreateAgentDirectory, CantRequestAgentStatus.
class SendAgentAction : public Action {
  public:
    explicit SendAgentAction(Env& env) : Action(true, env) {}
    void execute() override;

    // One entry of a walk of a local agent tree onto the remote path `base`: uploads a file, or
    // creates a directory (mkdir -p, owned by the login). Agent control directories stay on this
    // host: for them, and below them, nothing is sent, and false ends the walk there.
    bool sendFile(const boost::filesystem::path& base, const boost::filesystem::path& local,
                  const boost::filesystem::path& remote);

  private:
    void sendTree(const boost::filesystem::path& local);

    static log4cpp::Category& logger;
};

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_SEND_AGENT_H
