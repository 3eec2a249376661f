// The migration status document: the progress of a run, rewritten atomically into the session's
// migration.status file for the controlling process to poll.
#ifndef FERRYGATE_XML_MIGRATION_STATUS_H
#define FERRYGATE_XML_MIGRATION_STATUS_H

#include <string>

#include "commons/replace_file.h"
#include "xml/xml_wrap.h"

namespace tavik {

// What the actions report. Values are strings; numbers come already formatted and are written
// unchanged. Nothing reaches the file before saveFile().
class MigrationStatus {
  public:
    enum agentOperation { opDeploy = 0, opWait = 1 };   // every value but opDeploy means wait
    enum objectType { objAccount = 0, objDomain = 1 };  // every value but objAccount: domain

    // Implementations may save a final state here, and a failed save propagates.
    virtual ~MigrationStatus() noexcept(false);

    virtual void setIdle() = 0;
    virtual void setAgentParams(const std::string& host) = 0;
    virtual void setAgentOperation(agentOperation op) = 0;
    virtual void setTransferSpeed(const std::string& speed) = 0;
    virtual void setTransferDump() = 0;
    virtual void setTransferTotals(const std::string& files, const std::string& size) = 0;
    virtual void setTransferFilesLeft(const std::string& files) = 0;
    virtual void setTransferSizeLeft(const std::string& size) = 0;
    virtual void setCurrentFile(const std::string& name, const std::string& size) = 0;
    virtual void setTransferCurrentFileSizeLeft(const std::string& size) = 0;
    virtual void setDeployTotals(const std::string& accounts, const std::string& domains) = 0;
    virtual void setDeploy(const std::string& accounts, const std::string& domains) = 0;
    virtual void setCurrentObject(const std::string& name, objectType type) = 0;
    virtual void setTranslate() = 0;
    // Replaces the status file with the current state.
    virtual void saveFile() = 0;
};

// Sole owner of a status document. std::unique_ptr cannot be used: its destructor is noexcept,
// so a failure of the final save would end the process instead of reaching the owner.
class MigrationStatusPtr {
  public:
    MigrationStatusPtr() : status_(nullptr) {}
    explicit MigrationStatusPtr(MigrationStatus* owned) : status_(owned) {}
    MigrationStatusPtr(MigrationStatusPtr&& other) noexcept : status_(other.release()) {}
    // Destroys the document held before, which may throw.
    MigrationStatusPtr& operator=(MigrationStatusPtr&& other) noexcept(false);
    MigrationStatusPtr(const MigrationStatusPtr&) = delete;
    MigrationStatusPtr& operator=(const MigrationStatusPtr&) = delete;
    ~MigrationStatusPtr() noexcept(false);

    // Destroys the document now; its final save may throw, and the pointer is null either way.
    void reset() noexcept(false);
    MigrationStatus* release() noexcept;

    MigrationStatus* get() const { return status_; }
    MigrationStatus* operator->() const { return status_; }
    MigrationStatus& operator*() const { return *status_; }
    explicit operator bool() const { return status_ != nullptr; }

  private:
    MigrationStatus* status_;
};

// The XML form, root element "migration-status". Its destructor saves the idle state; the save's
// failure propagates, unless another exception is already on its way, which wins (the lost one
// is logged).
class XmlMigrationStatus : public tXmlRkuDocument, public MigrationStatus {
  public:
    // State idle, every field empty; writes nothing. Every save replaces `statusFile` with a
    // file given to `owner`.
    XmlMigrationStatus(const std::string& statusFile, const FileOwner& owner);
    ~XmlMigrationStatus() noexcept(false) override;
    // A copy would share the tree and save a second time when destroyed.
    XmlMigrationStatus(const XmlMigrationStatus&) = delete;
    XmlMigrationStatus& operator=(const XmlMigrationStatus&) = delete;

    void setIdle() override;
    void setAgentParams(const std::string& host) override;
    void setAgentOperation(agentOperation op) override;
    void setTransferSpeed(const std::string& speed) override;
    void setTransferDump() override;
    void setTransferTotals(const std::string& files, const std::string& size) override;
    void setTransferFilesLeft(const std::string& files) override;
    void setTransferSizeLeft(const std::string& size) override;
    void setCurrentFile(const std::string& name, const std::string& size) override;
    void setTransferCurrentFileSizeLeft(const std::string& size) override;
    void setDeployTotals(const std::string& accounts, const std::string& domains) override;
    void setDeploy(const std::string& accounts, const std::string& domains) override;
    void setCurrentObject(const std::string& name, objectType type) override;
    void setTranslate() override;
    // Rebuilds the children of the root and saves atomically to the status file. Only
    // the children are rebuilt: attributes that the deploy state put on the root stay, with
    // their last values, in every later save.
    void saveFile() override;

  private:
    enum State { idle = 0, agent = 1, dump = 2, transfer = 3, translate = 4, deploy = 5 };

    void build();

    std::string statusFile_;
    FileOwner owner_;
    State state_;
    agentOperation operation_;
    std::string pid_;
    std::string host_;
    std::string speed_;
    std::string filesTotal_;
    std::string filesLeft_;
    std::string sizeTotal_;
    std::string sizeLeft_;
    std::string currentFileSizeLeft_;
    std::string currentFileName_;
    std::string currentFileSize_;
    std::string totalAccounts_;
    std::string totalDomains_;
    std::string completedAccounts_;
    std::string completedDomains_;
    std::string currentObjectName_;
    objectType currentObjectType_;
    int uncaughtAtConstruction_;
};

// A new, empty status document saved to `statusFile`; nothing is written yet. (The session's
// own, createMigrationStatusFile(), is in ferrygate/session.h.)
MigrationStatusPtr createMigrationStatusFile(const std::string& statusFile, const FileOwner& owner);

}  // namespace tavik

#endif  // FERRYGATE_XML_MIGRATION_STATUS_H
