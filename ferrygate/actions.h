// The actions of the command line, one class each (the agent deployment is in send_agent.h).
#ifndef FERRYGATE_FERRYGATE_ACTIONS_H
#define FERRYGATE_FERRYGATE_ACTIONS_H

#include <string>
#include <vector>

#include "ferrygate/action.h"
#include "ferrygate/send_agent.h"
#include "xml/agent_file_list.h"

namespace tavik {

// --send-scout: feeds the scout script to the remote perl and keeps what it prints as the
// session's scout result. Throws UnableToOpenScoutFile (before connecting), FailedToExecuteScout.
class SendScoutAction : public Action {
  public:
    explicit SendScoutAction(Env& env) : Action(true, env) {}
    void execute() override;
};

// --dump-selected and --dump-all: runs the agent with `args` and `input` (its standard input),
// refreshing the session's copy of its dumping status meanwhile, then downloads its dump.xml.
// Throws CantRetrieveDump, CantRetrieveDumpFile, FileWrite.
class RetrieveDumpAction : public Action {
  public:
    RetrieveDumpAction(Env& env, const std::vector<std::string>& args, const std::string& input)
        : Action(true, env), args(args), input(input) {}
    void execute() override;

  private:
    std::vector<std::string> args;
    std::string input;
};

// --get-dumping-status: prints the agent's dumping-status file on standard output. Throws
// DumpStatusError.
class GetDumpingStatusAction : public Action {
  public:
    explicit GetDumpingStatusAction(Env& env) : Action(true, env) {}
    void execute() override;
};

// --remove-dumping-status: unlinks <agent directory>/dumping-status.xml on this host. Never
// connects, never fails.
class RemoveDumpingStatusAction : public Action {
  public:
    explicit RemoveDumpingStatusAction(Env& env) : Action(true, env) {}
    void execute() override;
};

// --get-content: downloads every file of the agent's content list into the dumps directory (the
// session's by default), skipping copies already there with the right MD5 sum, and deletes each
// downloaded file on the source host. Throws CantRetrieveContentList, NotEnoughSpace, CantStatFS,
// WrongMd5Sum (a download of the wrong size: the remote file is then kept), FileWrite.
class RetrieveContentAction : public Action {
  public:
    explicit RetrieveContentAction(Env& env) : Action(true, env) {}
    void execute() override;

  private:
    struct Progress {
        FileRetrievalProgressUpdater& updater;
        size_t left;
    };
    void startFile(Progress& progress, const DumpFile& file);
    void endFile(Progress& progress);
    // Fetches files[begin, end) in one command, then whatever failed its sum alone. Verified
    // sources are added to `verified`.
    void fetchBatch(const std::vector<DumpFile>& files, size_t begin, size_t end,
                    const std::string& target, Progress& progress,
                    std::vector<std::string>& verified);
    // Deletes the sources of verified copies on the remote host, then forgets them.
    void removeSources(std::vector<std::string>& sources);
    // The agent's list, refused whole (CantRetrieveContentList) when an entry has no usable
    // name of its own.
    std::vector<DumpFile> contentList();
    // Makes `local` a verified copy of `file`: continues a partial copy, and fetches the whole
    // file once more when the sum does not match. False when a finished copy was already there.
    // Throws WrongMd5Sum after the second mismatch, keeping the bad copy aside.
    bool fetchVerified(const DumpFile& file, const std::string& local,
                       FileRetrievalProgressUpdater& updater);
    // Appends the remote file from byte `offset` on to `local`, feeding `digest`; returns the
    // digest's sum. Throws FileWrite, StreamRead and the transport's failures.
    std::string fetch(const DumpFile& file, const std::string& local, int64_t offset,
                      class Md5& digest, FileRetrievalProgressUpdater& updater);
};

// --remove-agent: removes the agent directory on the source host; best effort, never fails.
class RemoveAgentAction : public Action {
  public:
    explicit RemoveAgentAction(Env& env) : Action(false, env) {}
    void execute() override;
};

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_ACTIONS_H
