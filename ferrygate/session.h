// The session directory: created when a run starts, and the one source of every file name in it.
#ifndef FERRYGATE_FERRYGATE_SESSION_H
#define FERRYGATE_FERRYGATE_SESSION_H

#include <string>

#include "xml/migration_status.h"

namespace tavik {

// Names are the session path as given plus a fixed suffix: no normalisation, so a trailing "/"
// yields a doubled separator and a relative path relative names.
class SessionFiles {
  public:
    // Creates the directory and its "archives" subdirectory (owner 0, group the uid of hmxadm,
    // mode 0750) when missing; an existing directory is reused as it is. Throws
    // UnableToCreateSession when the session path is not a directory afterwards.
    explicit SessionFiles(const std::string& dir);

    std::string getDir() const;
    // Content files lie directly in the session directory, beside the status files.
    std::string getCidFilesDir() const;
    std::string getCidFile(const std::string& name) const;
    std::string getLogFileName() const;
    std::string getResultFileName() const;
    std::string getStatusFileName() const;
    std::string getDeploymentStatusFileName() const;
    std::string getScoutResultFileName() const;
    std::string getDumpFileName() const;
    std::string getDumpingStatusFileName() const;
    std::string getTavikDumpFileName() const;

    // Deletes the whole session tree. Nothing in a run calls it: sessions outlive their runs.
    void remove();

  private:
    std::string dir_;
};

// The current session, set for the length of a SessionLifetimeController; null otherwise.
extern SessionFiles* theSession;

// Publishes a new SessionFiles in theSession for its own lifetime.
class SessionLifetimeController {
  public:
    // Throws what SessionFiles throws, leaving theSession null.
    explicit SessionLifetimeController(const std::string& dir);
    ~SessionLifetimeController();
    SessionLifetimeController(const SessionLifetimeController&) = delete;
    SessionLifetimeController& operator=(const SessionLifetimeController&) = delete;
};

// A new, empty migration status document of the current session, given to hmxadm when saved;
// theSession must be set. Nothing is written yet.
MigrationStatusPtr createMigrationStatusFile();

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_SESSION_H
