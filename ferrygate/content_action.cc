#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"
#include "xml/agent_file_list.h"

namespace tavik {

namespace {

const unsigned kContentDirMode = 0755;

}  // namespace

void RetrieveContentAction::execute() {
    env().makeDir(env().session().getCidFilesDir(), kContentDirMode);

    status->setAgentParams(cfg().host);
    status->setTransferDump();
    status->saveFile();

    const std::string command =
        agentCommand(*env().agent(cfg().agentName), {"--get-content-list"});
    std::ostringstream out;
    std::ostringstream err;
    const int rc = execRoot(command, out, err, false);
    if (rc != 0) {
        TAVIK_RAISE(CantRetrieveContentList,
                    "the agent ended with status " + std::to_string(rc) + ": " + err.str());
    }
    std::vector<DumpFile> files;
    try {
        files = getFileList(out.str())->getFileList();
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(CantRetrieveContentList, e, e.what());
    } catch (const boost::bad_lexical_cast& e) {
        TAVIK_RAISE(CantRetrieveContentList, std::string("a file size is not a number"));
    }

    uint64_t total = 0;
    for (const DumpFile& file : files) {
        const std::string name = getFileNameFromPath(file.name);
        // The local copy is always a plain name inside the target directory.
        if (name.empty() || name == "." || name == ".." || file.size < 0) {
            TAVIK_RAISE(CantRetrieveContentList, "unusable entry '" + file.name + "'");
        }
        total += static_cast<uint64_t>(file.size);
    }
    status->setTransferTotals(std::to_string(files.size()), std::to_string(total));
    status->saveFile();

    const std::string target =
        cfg().dumpsDir.empty() ? env().session().getCidFilesDir() : cfg().dumpsDir;
    if (!cfg().noCheckSpace) {
        const uint64_t freeSpace = env().freeSpace(target);
        if (freeSpace < total) TAVIK_RAISE(NotEnoughSpace, freeSpace, total);
    }

    FileRetrievalProgressUpdater updater(status.get(), static_cast<int64_t>(total));
    std::size_t left = files.size();
    for (const DumpFile& file : files) {
        const std::string local = target + "/" + getFileNameFromPath(file.name);
        status->setCurrentFile(getFileNameFromPath(file.name), std::to_string(file.size));
        status->saveFile();
        env().makeDir(getPath(local), kContentDirMode);
        updater.startFile(file.size);
        if (env().fileSize(local) == file.size && env().md5(local) == file.md5) {
            // Fetched by an earlier, interrupted run.
            updater.skip(file.size);
        } else {
            std::unique_ptr<std::ofstream> copy = env().openForWrite(local, false);
            if (!copy) TAVIK_RAISE(FileWrite, local, std::strerror(errno));
            env().get(*copy, file.name, updater);
            copy->close();
            if (!*copy) TAVIK_RAISE(FileWrite, local, std::strerror(errno));
            // An unreadable remote file downloads as an empty one without an error; the source
            // copy is deleted only when the local one is whole.
            if (env().fileSize(local) != file.size) {
                TAVIK_RAISE(WrongMd5Sum, local, env().md5(local), file.md5);
            }
            DiscardStream discard;
            std::ostringstream rmErr;
            if (execRoot(shellWords({"rm", file.name}), discard, rmErr, false) != 0) {
                log4cpp::Category::getInstance("p.Action").warnStream()
                    << "Cannot remove " << file.name << " on the remote host: " << rmErr.str();
            }
        }
        status->setTransferFilesLeft(std::to_string(--left));
        status->saveFile();
    }

    env().replaceFileText(cfg().sessionPath + "/dump-name", target + "/dump.xml");
}

}  // namespace tavik
