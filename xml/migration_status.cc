#include "xml/migration_status.h"

#include <libxml/tree.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <exception>

#include "xml/xml_internal.h"

namespace tavik {

MigrationStatus::~MigrationStatus() noexcept(false) = default;

MigrationStatusPtr& MigrationStatusPtr::operator=(MigrationStatusPtr&& other) noexcept(false) {
    if (this != &other) {
        MigrationStatus* previous = status_;
        status_ = other.release();
        delete previous;
    }
    return *this;
}

MigrationStatusPtr::~MigrationStatusPtr() noexcept(false) { delete status_; }

void MigrationStatusPtr::reset() noexcept(false) {
    MigrationStatus* previous = status_;
    status_ = nullptr;
    delete previous;
}

MigrationStatus* MigrationStatusPtr::release() noexcept {
    MigrationStatus* released = status_;
    status_ = nullptr;
    return released;
}

XmlMigrationStatus::XmlMigrationStatus(const std::string& statusFile, const FileOwner& owner)
    : statusFile_(statusFile),
      owner_(owner),
      state_(idle),
      operation_(opDeploy),
      currentObjectType_(objAccount),
      uncaughtAtConstruction_(std::uncaught_exceptions()) {
    initNewDoc("migration-status");
}

XmlMigrationStatus::~XmlMigrationStatus() noexcept(false) {
    state_ = idle;
    if (std::uncaught_exceptions() <= uncaughtAtConstruction_) {
        saveFile();
        return;
    }
    // Destroyed while unwinding: a second exception would end the process, and the one already
    // travelling says more about what went wrong.
    try {
        saveFile();
    } catch (const std::exception& e) {
        logger.error(std::string("The final migration status was not saved: ") + e.what());
    }
}

void XmlMigrationStatus::setIdle() { state_ = idle; }

void XmlMigrationStatus::setAgentParams(const std::string& host) { host_ = host; }

void XmlMigrationStatus::setAgentOperation(agentOperation op) {
    operation_ = op;
    state_ = agent;
}

void XmlMigrationStatus::setTransferSpeed(const std::string& speed) { speed_ = speed; }

void XmlMigrationStatus::setTransferDump() { state_ = dump; }

void XmlMigrationStatus::setTransferTotals(const std::string& files, const std::string& size) {
    filesTotal_ = filesLeft_ = files;
    sizeTotal_ = sizeLeft_ = size;
    state_ = transfer;
}

void XmlMigrationStatus::setTransferFilesLeft(const std::string& files) {
    filesLeft_ = files;
    state_ = transfer;
}

void XmlMigrationStatus::setTransferSizeLeft(const std::string& size) {
    sizeLeft_ = size;
    state_ = transfer;
}

void XmlMigrationStatus::setCurrentFile(const std::string& name, const std::string& size) {
    currentFileName_ = name;
    currentFileSize_ = currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setTransferCurrentFileSizeLeft(const std::string& size) {
    currentFileSizeLeft_ = size;
    state_ = transfer;
}

void XmlMigrationStatus::setDeployTotals(const std::string& accounts, const std::string& domains) {
    totalAccounts_ = accounts;
    totalDomains_ = domains;
    state_ = deploy;
}

void XmlMigrationStatus::setDeploy(const std::string& accounts, const std::string& domains) {
    completedAccounts_ = accounts;
    completedDomains_ = domains;
    state_ = deploy;
}

void XmlMigrationStatus::setCurrentObject(const std::string& name, objectType type) {
    currentObjectName_ = name;
    currentObjectType_ = type;
}

void XmlMigrationStatus::setTranslate() { state_ = translate; }

void XmlMigrationStatus::saveFile() {
    pid_ = boost::lexical_cast<std::string>(getpid());
    xmlFreeNodeList(root_->children);
    root_->children = root_->last = nullptr;
    // The file format has no process id: with no parent, this creates nothing.
    newTextChild(nullptr, "pid", pid_);
    build();
    saveToFileAtomically(statusFile_, owner_);
}

void XmlMigrationStatus::build() {
    xmlNode* element = nullptr;
    switch (state_) {
        case idle:
            newChild(root_, "idle");
            break;
        case agent:
            element = newChild(root_, "agent");
            addAttribute(element, "action", operation_ == opDeploy ? "deploy" : "wait");
            break;
        case translate:
            newChild(root_, "translate");
            break;
        case deploy:
            addAttribute(root_, "total-accounts", totalAccounts_);
            addAttribute(root_, "total-domains", totalDomains_);
            addAttribute(root_, "completed-accounts", completedAccounts_);
            addAttribute(root_, "completed-domains", completedDomains_);
            if (!currentObjectName_.empty()) {
                xmlNode* object = newTextChild(root_, "current-object", currentObjectName_);
                addAttribute(object, "type",
                             currentObjectType_ == objAccount ? "account" : "domain");
            }
            break;
        case dump:
        case transfer:
            element = newChild(root_, "transfer");
            if (!speed_.empty()) addAttribute(element, "speed", speed_);
            break;
    }
    if (state_ != agent && state_ != dump && state_ != transfer) return;

    newTextChild(element, "host", host_);
    if (state_ == dump) newChild(element, "dumpfile");
    if (state_ != transfer) return;

    xmlNode* files = newChild(element, "files");
    addAttribute(files, "total", filesTotal_);
    addAttribute(files, "left", filesLeft_);
    if (!sizeTotal_.empty() && !sizeLeft_.empty()) {
        addAttribute(files, "size-total", sizeTotal_);
        addAttribute(files, "size-left", sizeLeft_);
    }
    if (currentFileName_.empty()) return;
    xmlNode* current = newTextChild(files, "current-file", currentFileName_);
    if (!currentFileSize_.empty()) {
        addAttribute(current, "size", currentFileSize_);
        addAttribute(current, "size-left", currentFileSizeLeft_);
    }
}

MigrationStatusPtr createMigrationStatusFile(const std::string& statusFile,
                                             const FileOwner& owner) {
    return MigrationStatusPtr(new XmlMigrationStatus(statusFile, owner));
}

}  // namespace tavik
