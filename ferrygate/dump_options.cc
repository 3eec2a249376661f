#include "ferrygate/dump_options.h"

#include <libxml/tree.h>

#include <memory>

#include "commons/exceptions.h"
#include "ferrygate/ferrygate.h"

namespace tavik {

namespace {

void appendToList(std::string& list, const std::string& names) {
    if (names.empty()) return;
    if (!list.empty()) list += ",";
    list += names;
}

// libxml2 answers a path that selects nothing with no node set at all (where a plain "//domain"
// gets an empty one), and the walker refuses a missing node set: a file without clients is
// still a good file.
void collectNames(const tFerrygateXmlDocument& doc, const char* expression, std::string& list) {
    const tXPathExpr names(doc, expression);
    if (names.getNodeSet() == nullptr) return;
    foreach_xmlnode(names, tPeriodSeparatedListOperator(list), xmlErrorFunc);
}

}  // namespace

void tPeriodSeparatedListOperator::act(xmlNode* node) const {
    std::unique_ptr<xmlChar, void (*)(xmlChar*)> content(xmlNodeGetContent(node), rkuFreeXmlChar);
    if (!content) return;
    appendToList(list_, reinterpret_cast<const char*>(content.get()));
}

void parseSelectedObjectsFile(const std::string& file, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compress) {
    const tFerrygateXmlDocument doc(file.c_str());
    collectNames(doc, "//domain/name/text()", domains);
    collectNames(doc, "//client/name/text()", clients);
    collectNames(doc, "//reseller/name/text()", resellers);

    // "only-phosting" is how selection files spell it.
    const std::string filterValue = tXPathExpr(doc, "/*/parameters/@filter").str();
    if (filterValue == "only-mail") {
        filter = FILTER_ONLY_MAIL;
    } else if (filterValue == "only-phosting") {
        filter = FILTER_ONLY_HOSTING;
    }
    const std::string compression = tXPathExpr(doc, "/*/parameters/@compression-level").str();
    if (compression == "do-not-compress") {
        compress = COMPRESS_NONE;
    } else if (compression == "standard") {
        compress = COMPRESS_STANDARD;
    }
}

void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compress) {
    appendToList(domains, cfg.domains);
    appendToList(clients, cfg.clients);
    appendToList(resellers, cfg.resellers);
    if (cfg.filter != FILTER_EVERYTHING) filter = cfg.filter;
    if (cfg.compress != COMPRESS_NOT_SPECIFIED) compress = cfg.compress;
}

void prepareDumpOptions(const config& cfg, std::vector<std::string>& args, std::string& input) {
    std::string domains, clients, resellers;
    opt_backup_filter filter = FILTER_EVERYTHING;
    opt_backup_compress compress = COMPRESS_NOT_SPECIFIED;
    if (!cfg.selectedObjectsFile.empty()) {
        parseSelectedObjectsFile(cfg.selectedObjectsFile, domains, clients, resellers, filter,
                                 compress);
    }
    getSelectedObjectsFromConfig(cfg, domains, clients, resellers, filter, compress);

    // The agent reads one line per list it was told about, in the order of its arguments.
    const char* separator = "";
    for (const auto& list : {std::make_pair("--dump-domains=-", &domains),
                             std::make_pair("--dump-clients=-", &clients),
                             std::make_pair("--dump-resellers=-", &resellers)}) {
        if (list.second->empty()) continue;
        args.push_back(list.first);
        input += separator;
        input += *list.second;
        separator = "\n";
    }
    if (filter == FILTER_ONLY_MAIL) args.push_back("--only-mail");
    if (filter == FILTER_ONLY_HOSTING) args.push_back("--only-hosting");
    if (compress == COMPRESS_NONE) args.push_back("--no-compress");
    args.push_back("--include-app-distrib");
}

void prepareDumpAgentArguments(const config& cfg, std::vector<std::string>& args,
                               std::string& input) {
    if (cfg.contentTransport == "rsync") {
        input += cfg.host + "\n" + cfg.login + "\n" + cfg.password + "\n" +
                 std::to_string(cfg.port) + "\n";
        args.push_back("--content-transport=rsync");
    }
    if (cfg.action == ACTION_DUMP_ALL) {
        args.push_back("--dump-all");
    } else if (cfg.action == ACTION_DUMP_SELECTED) {
        prepareDumpOptions(cfg, args, input);
    } else {
        TAVIK_RAISE(UnknownAction);
    }
}

}  // namespace tavik
