#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>
#include <boost/lexical_cast.hpp>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/replace_file.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/tavik_ugid.h"
#include "xml/agent_file_list.h"

namespace tavik {

namespace fs = boost::filesystem;

namespace {

const unsigned kContentDirMode = 0755;

bool hasMd5(const std::string& file, const std::string& md5) {
    std::ifstream in(file.c_str(), std::ios::binary);
    return in && countMd5Sum(in) == md5;
}

// The file system of `path`, or of its nearest existing ancestor when the directory is still to
// be made.
std::string existingAncestor(const std::string& path) {
    fs::path dir = fs::absolute(path);
    while (!dir.empty() && !pathExists(dir)) dir = dir.parent_path();
    return dir.empty() ? "/" : dir.string();
}

int64_t fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

}  // namespace

void RetrieveContentAction::execute() {
    const unsigned uid = tavik_ugid("hmxadm", 0);
    const unsigned gid = tavik_ugid("hmxadm", 1);
    make_content_dir(theSession->getCidFilesDir(), kContentDirMode, uid, gid);

    status->setAgentParams(cfg().host);
    status->setTransferDump();
    status->saveFile();

    const boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg().agentName);
    const std::string command = sh_quote(agent->getEffectiveInterpreter()) + " " +
                                sh_quote(remoteAgentPath(agent->getEntryPoint())) + " " +
                                sh_quote("--get-content-list");
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
        cfg().dumpsDir.empty() ? theSession->getCidFilesDir() : cfg().dumpsDir;
    if (!cfg().noCheckSpace) {
        const uint64_t freeSpace = getFreeSpace(existingAncestor(target));
        if (freeSpace < total) TAVIK_RAISE(NotEnoughSpace, freeSpace, total);
    }

    FileRetrievalProgressUpdater updater(status.get(), static_cast<int64_t>(total));
    std::size_t left = files.size();
    for (const DumpFile& file : files) {
        const std::string local = target + "/" + getFileNameFromPath(file.name);
        status->setCurrentFile(getFileNameFromPath(file.name), std::to_string(file.size));
        status->saveFile();
        make_content_dir(getPath(local), kContentDirMode, uid, gid);
        updater.startFile(file.size);
        if (fileSize(local) == file.size && hasMd5(local, file.md5)) {
            // Fetched by an earlier, interrupted run.
            updater.skip(file.size);
        } else {
            getSsh()->get(local, file.name, updater);
            // An unreadable remote file downloads as an empty one without an error; the source
            // copy is deleted only when the local one is whole.
            if (fileSize(local) != file.size) {
                std::ifstream copy(local.c_str(), std::ios::binary);
                TAVIK_RAISE(WrongMd5Sum, local, countMd5Sum(copy), file.md5);
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

    replaceFileText(cfg().sessionPath + "/dump-name", adminAccount(), target + "/dump.xml");
}

}  // namespace tavik
