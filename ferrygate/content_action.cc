#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <log4cpp/Category.hh>
#include <map>
#include <sstream>

#include "commons/checksum.h"
#include "commons/exceptions.h"
#include "ferrygate/actions.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/digesting_writer.h"
#include "ferrygate/progress_line.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "xml/agent_file_list.h"

namespace tavik {

namespace {

const unsigned kContentDirMode = 0755;

log4cpp::Category& contentLog() { return log4cpp::Category::getInstance("p.Action"); }

// Where the copy of `file` goes: always a plain name inside the target directory.
std::string localPath(const std::string& target, const DumpFile& file) {
    return target + "/" + getFileNameFromPath(file.name);
}

// A copy that failed its checksum twice keeps this suffix: a later run starts that file afresh
// instead of taking the copy for a finished or a partial one.
const char kRejectedSuffix[] = ".rejected";

// Files that travel together in one command: small ones, so that a failed part costs little.
const size_t kBatchFiles = 256;
const uint64_t kBatchBytes = 32 << 20;
const int64_t kBatchFileSize = 1 << 20;

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
    // For an operator at a terminal; the controlling process sees only the status file.
    std::unique_ptr<ProgressLine> line;
    if (cfg().progress) {
        line.reset(new ProgressLine(STDERR_FILENO));
        updater.showOn(line.get(), files.size());
    }
    Progress progress{updater, files.size()};
    std::vector<std::string> verified;
    try {
        for (size_t next = 0; next < files.size();) {
            // Small files that no earlier run touched travel together in one command; anything
            // else, alone.
            size_t end = next;
            uint64_t bytes = 0;
            while (end < files.size() && end - next < kBatchFiles && bytes < kBatchBytes &&
                   files[end].size <= kBatchFileSize &&
                   env().fileSize(localPath(target, files[end])) < 0) {
                bytes += static_cast<uint64_t>(files[end].size);
                ++end;
            }
            if (end - next < 2) {
                const DumpFile& file = files[next++];
                const std::string local = localPath(target, file);
                startFile(progress, file);
                env().makeDir(getPath(local), kContentDirMode);
                if (fetchVerified(file, local, updater)) verified.push_back(file.name);
                endFile(progress);
            } else {
                fetchBatch(files, next, end, target, progress, verified);
                next = end;
            }
            if (verified.size() >= kBatchFiles) removeSources(verified);
        }
    } catch (const Exc<&SshConnectionFault>&) {
        throw;
    } catch (...) {
        // What is verified may go even though the run fails; best effort, the failure matters.
        try {
            removeSources(verified);
        } catch (const std::exception& e) {
            contentLog().warnStream() << "Sources of verified copies kept: " << e.what();
        }
        throw;
    }
    removeSources(verified);
    if (line) line->finish();

    env().replaceFileText(cfg().sessionPath + "/dump-name", target + "/dump.xml");
}

std::vector<DumpFile> RetrieveContentAction::contentList() {
    const std::string command = agentCommand(*env().agent(cfg().agentName), {"--get-content-list"});
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
        const bool setAside =
            name.size() > rejected.size() &&
            name.compare(name.size() - rejected.size(), std::string::npos, rejected) == 0;
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
    updater.retry(std::max<int64_t>(0, env().fileSize(local)));
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
    DigestingWriter writer(*copy, digest);
    std::ostream out(&writer);
    std::istream none(nullptr);
    std::ostringstream err;
    const int rc =
        offset > 0
            ? env().exec("tail -c +" + std::to_string(offset + 1) + " " + sh_quote(file.name), none,
                         out, err, true, true, updater)
            : env().get(out, file.name, updater, &err);
    // Data the disk refused, at the last flush included, are no copy at all.
    const bool stored = writer.finish();
    copy->close();
    if (!stored || !*copy || !out) TAVIK_RAISE(FileWrite, local, std::strerror(errno));
    if (rc != 0) {
        contentLog().errorStream() << "Cannot read " << file.name << " on the remote host (status "
                                   << rc << "): " << err.str();
        TAVIK_RAISE(StreamRead);
    }
    return digest.hex();
}

void RetrieveContentAction::startFile(Progress& progress, const DumpFile& file) {
    status->setCurrentFile(getFileNameFromPath(file.name), std::to_string(file.size));
    status->saveFile();
    progress.updater.startFile(file.size);
}

void RetrieveContentAction::endFile(Progress& progress) {
    status->setTransferFilesLeft(std::to_string(--progress.left));
    status->saveFile();
}

void RetrieveContentAction::removeSources(std::vector<std::string>& sources) {
    if (sources.empty()) return;
    std::string list;
    for (const std::string& source : sources) list += source + '\0';
    std::istringstream in(list);
    DiscardStream discard;
    std::ostringstream err;
    if (execRoot("xargs -0 rm -f --", in, discard, err, false, false) != 0) {
        contentLog().warnStream() << "Cannot remove every source on the remote host: " << err.str();
    }
    sources.clear();
}

namespace {

// Splits one stream of files sent back to back at the listed sizes, summing each part; a part
// whose sum then fails was cut wrong or changed, and is fetched again alone.
class Splitter : public std::streambuf {
  public:
    typedef std::function<void(size_t)> Boundary;
    Splitter(Env& env, const std::vector<DumpFile>& files, size_t begin, size_t end,
             const std::string& target, FileRetrievalProgressUpdater& updater,
             const Boundary& starting, const Boundary& finished)
        : env_(env),
          files_(files),
          index_(begin),
          end_(end),
          target_(target),
          updater_(updater),
          starting_(starting),
          finished_(finished) {}

    std::vector<std::string> sums;  // one per part, in order; "" when the part never completed
    std::vector<int64_t> taken;     // the bytes of each part, as counted

    // Ends the current part; parts that never began stay without a sum.
    void close() {
        if (copy_) finishPart();
    }

  protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        std::streamsize left = size;
        while (left > 0) {
            if (!copy_ && !openPart()) {
                overflow_ = true;  // more than the list announced
                return size;
            }
            const int64_t room = files_[index_].size - written_;
            const std::streamsize take = std::min<std::streamsize>(left, room);
            copy_->write(data, take);
            digest_.update(data, static_cast<size_t>(take));
            updater_(static_cast<int>(take));
            written_ += take;
            data += take;
            left -= take;
            if (written_ == files_[index_].size) finishPart();
        }
        return size;
    }
    int overflow(int c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        const char byte = traits_type::to_char_type(c);
        xsputn(&byte, 1);
        return c;
    }

  private:
    bool openPart() {
        if (index_ >= end_) return false;
        local_ = localPath(target_, files_[index_]);
        starting_(index_);
        copy_ = env_.openForWrite(local_, false);
        if (!copy_) TAVIK_RAISE(FileWrite, local_, std::strerror(errno));
        digest_ = Md5();
        written_ = 0;
        if (files_[index_].size == 0) finishPart();
        return true;
    }
    void finishPart() {
        copy_->close();
        if (!*copy_) TAVIK_RAISE(FileWrite, local_, std::strerror(errno));
        copy_.reset();
        sums.push_back(written_ == files_[index_].size && !overflow_ ? digest_.hex() : "");
        taken.push_back(written_);
        finished_(index_);
        ++index_;
    }

    Env& env_;
    const std::vector<DumpFile>& files_;
    size_t index_;
    size_t end_;
    std::string target_;
    FileRetrievalProgressUpdater& updater_;
    Boundary starting_;
    Boundary finished_;
    std::string local_;  // of the current part
    std::unique_ptr<std::ofstream> copy_;
    Md5 digest_;
    int64_t written_ = 0;
    bool overflow_ = false;
};

}  // namespace

void RetrieveContentAction::fetchBatch(const std::vector<DumpFile>& files, size_t begin, size_t end,
                                       const std::string& target, Progress& progress,
                                       std::vector<std::string>& verified) {
    std::string list;
    for (size_t i = begin; i < end; ++i) {
        env().makeDir(getPath(localPath(target, files[i])), kContentDirMode);
        list += files[i].name + '\0';
    }
    Splitter splitter(
        env(), files, begin, end, target, progress.updater,
        [&](size_t i) { startFile(progress, files[i]); }, [&](size_t) { endFile(progress); });
    std::ostream out(&splitter);
    std::istringstream in(list);
    std::ostringstream err;
    // Every listed name goes through standard input: no quoting, and no limit on the count.
    const int rc = env().exec("xargs -0 cat --", in, out, err, true, true, Ssh::nullCounter);
    splitter.close();
    if (rc != 0) {
        contentLog().warnStream() << "Fetching " << end - begin << " files together ended with "
                                  << rc << ": " << err.str();
    }
    for (size_t i = begin; i < end; ++i) {
        const size_t part = i - begin;
        const bool whole = part < splitter.sums.size() && splitter.sums[part] == files[i].md5;
        if (whole) {
            verified.push_back(files[i].name);
            continue;
        }
        // Alone, from the start: a part cut at a wrong size says nothing about its bytes.
        const std::string local = localPath(target, files[i]);
        env().removeFile(local);
        const bool reported = part < splitter.sums.size();
        if (reported) {
            ++progress.left;
            progress.updater.retry(splitter.taken[part]);
        }
        startFile(progress, files[i]);
        if (fetchVerified(files[i], local, progress.updater)) verified.push_back(files[i].name);
        endFile(progress);
    }
}

}  // namespace tavik
