#include "historytext.h"

#include "clitext.h"
#include "safetext.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<const char *, 20> kColumns{"kind",        "epg",     "identity",  "from",  "until",
                                                "duration_ms", "event",   "reason",    "other", "source",
                                                "destination", "file",    "datagrams", "bytes", "failed",
                                                "dropped",     "silence", "late",      "text",  "broadcasts"};

std::string textOf(const Json &entry, const char *pszKey) {
    const auto found = entry.find(pszKey);
    if (found == entry.end()) {
        return "";
    }
    return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string timeOf(const Json &entry, const char *pszKey, const char *pszNone) {
    return entry.contains(pszKey) ? writeTime(entry.value(pszKey, 0ul)) : pszNone;
}

std::string whatOf(const Json &entry) {
    const std::string sKind = textOf(entry, "kind");
    if (sKind == "message") {
        return "\"" + textForTerminal(textOf(entry, "text")) + "\"";
    }
    return textForTerminal(textOf(entry, sKind == "file" ? "file" : "source")) + " -> " +
           textForTerminal(textOf(entry, "destination"));
}

void add(std::string *psText, const std::string &sPart) {
    *psText += (psText->empty() ? "" : ", ") + sPart;
}

std::string outcomeOf(const Json &entry) {
    std::string sText = textOf(entry, "event");
    if (sText.empty()) {
        sText = textOf(entry, "kind") == "message" ? "lives" : "on air";
    }
    if (!textOf(entry, "reason").empty()) {
        sText += " (" + textOf(entry, "reason") + ")";
    }
    if (!textOf(entry, "other").empty()) {
        sText += " by " + textOf(entry, "other");
    }
    for (const char *pszKey : {"broadcasts", "datagrams", "bytes", "failed", "dropped", "late"}) {
        const bool bAlways = pszKey[0] == 'b' || pszKey == std::string("datagrams");
        if (entry.contains(pszKey) && (bAlways || entry.value(pszKey, 0ul) != 0)) {
            add(&sText, textOf(entry, pszKey) + " " + pszKey);
        }
    }
    if (entry.value("silence", 0ul) != 0) {
        add(&sText, textOf(entry, "silence") + " s silent");
    }
    return sText;
}

} // namespace

std::vector<std::string> historyLines(const std::vector<Json> &entries) {
    std::vector<std::string> lines;
    for (const Json &entry : entries) {
        const std::string sFrom = timeOf(entry, "from", "");
        std::string sLine = sFrom.empty() ? "not on air, " : sFrom + " to ";
        sLine += timeOf(entry, "until", "now");
        sLine += "  " + textOf(entry, "kind") + " " + textOf(entry, "identity") + "  " + whatOf(entry);
        lines.push_back(std::move(sLine));
        lines.push_back("    " + outcomeOf(entry));
    }
    return lines;
}

std::string historyCSVHead() {
    std::string sHead;
    for (const char *pszColumn : kColumns) {
        sHead += sHead.empty() ? "" : ",";
        sHead += pszColumn;
    }
    return sHead;
}

std::string historyCSV(const Json &entry) {
    std::string sRow;
    for (const char *pszColumn : kColumns) {
        std::string sField = textForTerminal(textOf(entry, pszColumn));
        if (sField.find_first_of(",\"\r\n") != std::string::npos) {
            for (size_t u = 0; (u = sField.find('"', u)) != std::string::npos; u += 2) {
                sField.insert(u, 1, '"');
            }
            sField.insert(0, 1, '"');
            sField += '"';
        }
        sRow += pszColumn == kColumns[0] ? "" : ",";
        sRow += sField;
    }
    return sRow;
}
