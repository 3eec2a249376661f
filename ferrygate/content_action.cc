#include <stdio.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <log4cpp/Category.hh>
#include <map>
#include <sstream>

#include "commons/checksum.h"
#include "commons/exceptions.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "xml/agent_file_list.h"

namespace tavik {

namespace {

const unsigned kContentDirMode = 0755;

log4cpp::Category& contentLog() { return log4cpp::Category::getInstance("p.Action"); }

// A copy that failed its checksum twice keeps this suffix: a later run starts that file afresh
// instead of taking the copy for a finished or a partial one.
const char kRejectedSuffix[] = ".rejected";

}  // namespace

void RetrieveContentAction::execute() {
    env().makeDir(env().session().getCidFilesDir(), kContentDirMode);

    status->setAgentParams(cfg().host);
    status->setTransferDump();
    status->saveFile();

    const std::vector<DumpFile> files = contentList();
    uint64_t total = 0;
    for (const DumpFile& file : files) total += static_cast<uint64_t>(file.size);
    status->setTransferTotals(std::to_string(files.size()), std::to_string(total));
    status->saveFile();

    const std::string target =
        cfg().dumpsDir.empty() ? env().session().getCidFilesDir() : cfg().dumpsDir;
    if (!cfg().noCheckSpace) {
        // What an earlier run left is not needed again.
        uint64_t needed = 0;
        for (const DumpFile& file : files) {
            const int64_t here = std::max<int64_t>(0, env().fileSize(localPath(target, file)));
            if (file.size > here) needed += static_cast<uint64_t>(file.size - here);
        }
        const uint64_t freeSpace = env().freeSpace(target);
        if (freeSpace < needed) TAVIK_RAISE(NotEnoughSpace, freeSpace, needed);
    }

    FileRetrievalProgressUpdater updater(status.get(), static_cast<int64_t>(total));
    std::size_t left = files.size();
    for (const DumpFile& file : files) {
        const std::string local = localPath(target, file);
        status->setCurrentFile(getFileNameFromPath(file.name), std::to_string(file.size));
        status->saveFile();
        env().makeDir(getPath(local), kContentDirMode);
        updater.startFile(file.size);
        if (fetchVerified(file, local, updater)) {
            // Only a copy proven whole lets its source go.
            DiscardStream discard;
            std::ostringstream rmErr;
            if (execRoot(shellWords({"rm", file.name}), discard, rmErr, false) != 0) {
                contentLog().warnStream() << "Cannot remove " << file.name
                                      << " on the remote host: " << rmErr.str();
            }
        }
        status->setTransferFilesLeft(std::to_string(--left));
        status->saveFile();
    }

    env().replaceFileText(cfg().sessionPath + "/dump-name", target + "/dump.xml");
}

std::vector<DumpFile> RetrieveContentAction::contentList() {
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
    // Every entry must have a local copy of its own before anything is fetched or deleted: two
    // sources sharing one copy would lose the first once the second arrived.
    std::map<std::string, std::string> owners;
    for (const DumpFile& file : files) {
        const std::string name = getFileNameFromPath(file.name);
        const std::string rejected(kRejectedSuffix);
        const bool setAside = name.size() > rejected.size() &&
                              name.compare(name.size() - rejected.size(), std::string::npos,
                                           rejected) == 0;
        if (name.empty() || name == "." || name == ".." || file.size < 0 || setAside) {
            TAVIK_RAISE(CantRetrieveContentList, "unusable entry '" + file.name + "'");
        }
        const auto inserted = owners.emplace(name, file.name);
        if (!inserted.second) {
            TAVIK_RAISE(CantRetrieveContentList, "'" + inserted.first->second + "' and '" +
                                                     file.name + "' would both be stored as " +
                                                     name);
        }
    }
    return files;
}

std::string RetrieveContentAction::localPath(const std::string& target, const DumpFile& file) {
    return target + "/" + getFileNameFromPath(file.name);
}

bool RetrieveContentAction::fetchVerified(const DumpFile& file, const std::string& local,
                                          FileRetrievalProgressUpdater& updater) {
    // What an earlier run left: the whole file (nothing to do), or a beginning to go on from.
    Md5 digest;
    int64_t have = std::max<int64_t>(0, env().fileSize(local));
    if (have > 0) {
        std::ifstream existing(local.c_str(), std::ios::binary);
        if (!digest.update(existing)) have = 0;
    }
    if (have > 0 && digest.hex() == file.md5) {
        updater.skip(file.size);
        return false;
    }
    if (have >= file.size) have = 0;
    if (have == 0) digest = Md5();
    updater.skip(have);

    std::string actual = fetch(file, local, have, digest, updater);
    if (actual == file.md5) return true;
    // Whether the file changed on the source or the resumed part was stale, a fresh copy of the
    // whole file settles it.
    contentLog().warnStream() << TAVIK_EXC(WrongMd5Sum, local, actual, file.md5).what();
    Md5 fresh;
    updater.startFile(file.size);
    actual = fetch(file, local, 0, fresh, updater);
    if (actual == file.md5) return true;
    ::rename(local.c_str(), (local + kRejectedSuffix).c_str());
    TAVIK_RAISE(WrongMd5Sum, local, actual, file.md5);
}

std::string RetrieveContentAction::fetch(const DumpFile& file, const std::string& local,
                                         int64_t offset, Md5& digest,
                                         FileRetrievalProgressUpdater& updater) {
    std::unique_ptr<std::ofstream> copy = env().openForWrite(local, offset > 0);
    if (!copy) TAVIK_RAISE(FileWrite, local, std::strerror(errno));
    HashingStreambuf hashing(copy->rdbuf(), digest);
    std::ostream out(&hashing);
    const std::string command = offset > 0 ? "tail -c +" + std::to_string(offset + 1) + " " +
                                                 sh_quote(file.name)
                                           : "cat " + sh_quote(file.name);
    std::istream none(nullptr);
    std::ostringstream err;
    const int rc = env().exec(command, none, out, err, true, true, updater);
    // Data the disk refused, at the last flush included, are no copy at all.
    copy->close();
    if (!*copy || !out) TAVIK_RAISE(FileWrite, local, std::strerror(errno));
    if (rc != 0) {
        contentLog().errorStream() << "Cannot read " << file.name << " on the remote host (status "
                               << rc << "): " << err.str();
        TAVIK_RAISE(StreamRead);
    }
    return digest.hex();
}

}  // namespace tavik
