// What a dump asks of the agent on the source host: its command-line arguments and the text fed
// to its standard input. The object lists (domains, clients, resellers) and the rsync connection
// data travel on standard input, never on the agent's command line.
#ifndef FERRYGATE_FERRYGATE_DUMP_OPTIONS_H
#define FERRYGATE_FERRYGATE_DUMP_OPTIONS_H

#include <string>
#include <vector>

#include "ferrygate/options.h"
#include "xml/xml_wrap.h"
#include "xml/xml_xpath.h"

namespace tavik {

// The document type of the selection file.
typedef tXmlDocument tFerrygateXmlDocument;

// Appends the content of each visited node to one list, separated by "," (the name is the
// file format's tradition). Nodes without content are skipped.
class tPeriodSeparatedListOperator : public tXmlOperator {
  public:
    // `list` is borrowed and must outlive the operator.
    explicit tPeriodSeparatedListOperator(std::string& list) : list_(list) {}
    void act(xmlNode* node) const override;

  private:
    std::string& list_;
};

// Adds the names of the selection file's domains, clients and resellers to the lists, and takes
// its "filter" ("only-mail", "only-phosting") and "compression-level" ("do-not-compress",
// "standard") when they are known values. A bad entry goes to the debug log and is skipped;
// the XML layer's errors for an unreadable file propagate.
void parseSelectedObjectsFile(const std::string& file, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compress);

// Adds the command line's lists to the given ones and lets its filter and compression, when
// given, override theirs.
void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compress);

// Appends the selected dump's agent arguments to `args` and its object lists, one line each, to
// `input`: selection file first, then the command line; "--include-app-distrib" always last.
void prepareDumpOptions(const config& cfg, std::vector<std::string>& args, std::string& input);

// The agent arguments and standard input of a dump (--dump-selected or --dump-all): the rsync
// connection lines first when the content goes by rsync, then the dump's own. A dump of
// everything ignores the selection. UnknownAction for any other action.
void prepareDumpAgentArguments(const config& cfg, std::vector<std::string>& args,
                               std::string& input);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_DUMP_OPTIONS_H
