#include "complete.h"

#include "commands.h"
#include "listtext.h"
#include "viewclient.h"
#include "viewwords.h"

#include <CLI/CLI.hpp>
#include <net/if.h>

#include <cctype>
#include <cstdio>
#include <sstream>

namespace {

// What may stand at a place.
struct Offers {
    bool bFiles = false;
    std::vector<std::pair<std::string, std::string>> words; // with descriptions
};

void offer(Offers *pOffers, std::initializer_list<const char *> words) {
    for (const char *pszWord : words) {
        pOffers->words.emplace_back(pszWord, "");
    }
}

void offerInterfaces(Offers *pOffers) {
    struct if_nameindex *const pNames = if_nameindex();
    for (const struct if_nameindex *p = pNames; p != nullptr && p->if_index != 0; ++p) {
        pOffers->words.emplace_back(p->if_name, "");
    }
    if (pNames != nullptr) {
        if_freenameindex(pNames);
    }
}

void offerCommands(const CLI::App &app, Offers *pOffers) {
    for (const CLI::App *pCommand : app.get_subcommands(nullptr)) {
        pOffers->words.emplace_back(pCommand->get_name(), pCommand->get_description());
    }
}

void offerOptions(const CLI::App &app, Offers *pOffers) {
    for (const CLI::Option *pOption : app.get_options()) {
        for (const std::string &sName : pOption->get_lnames()) {
            pOffers->words.emplace_back("--" + sName, pOption->get_description());
        }
    }
}

// The identities of the casts, or of the messages, that there are.
void offerIdentities(bool bMessages, Offers *pOffers) {
    Json view;
    std::string sProblem;
    if (getView(&view, &sProblem) != VIEW_ANSWERED) {
        return;
    }
    for (const Json &request : listRequests(view)) {
        const std::string sKind = textAt(request, "kind");
        if (textAt(request, "place") != "over" &&
            (bMessages ? sKind == "message" : sKind == "relay" || sKind == "file")) {
            pOffers->words.emplace_back(textAt(request, "identity"),
                                        shortNameOf(request) + ", " + textAt(request, "place"));
        }
    }
}

// The kind of value of an option, as its help shows it, or the name of a positional.
void offerValues(const std::string &sKind, Offers *pOffers) {
    if (sKind == "TIME") {
        offer(pOffers, {"now", "+30s", "+5m", "+1h"});
    } else if (sKind == "DURATION") {
        offer(pOffers, {"30s", "5m", "1h", "1d"});
    } else if (sKind == "NAME|ADDRESS") {
        offerInterfaces(pOffers);
    } else if (sKind == "PATH" || sKind == "FILE") {
        pOffers->bFiles = true;
    } else if (sKind.find('|') != std::string::npos) { // ts|asf|NUMBER: those that are meant as they stand
        std::istringstream kinds(sKind);
        for (std::string sWord; std::getline(kinds, sWord, '|');) {
            if (std::isupper(static_cast<unsigned char>(sWord[0])) == 0) {
                pOffers->words.emplace_back(sWord, "");
            }
        }
    }
}

const CLI::Option *optionNamed(const CLI::App &app, const std::string &sWord) {
    return sWord.size() > 1 && sWord[0] == '-' ? app.get_option_no_throw(sWord) : nullptr;
}

bool takesValue(const CLI::Option *pOption) {
    return pOption != nullptr && pOption->get_items_expected_max() > 0;
}

// What may stand behind the words of a command.
void offerForCommand(const CLI::App &app, const std::vector<std::string> &words, Offers *pOffers) {
    size_t uPositionals = 0; // that are there
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (takesValue(optionNamed(app, words[i]))) {
            ++i;
            if (i + 1 == words.size()) {
                return offerValues(optionNamed(app, words[i - 1])->get_type_name(), pOffers);
            }
        } else if (words[i].empty() || words[i][0] != '-') {
            ++uPositionals;
        }
    }
    if (!words.back().empty() && words.back()[0] == '-') {
        return offerOptions(app, pOffers);
    }
    for (const CLI::Option *pOption : app.get_options()) {
        if (pOption->get_positional() && pOption->get_lnames().empty() && uPositionals-- == 0) {
            if (pOption->get_name(true) == "IDENTITY") {
                return offerIdentities(app.get_name() == "cancel", pOffers);
            }
            return offerValues(pOption->get_name(true), pOffers);
        }
    }
}

} // namespace

int complete(const CLI::App &app, const std::vector<std::string> &words) {
    Offers offers;
    if (words.empty()) {
        return EXIT_DONE;
    }
    const CLI::App *const pCommand = words.size() > 1 ? commandNamed(app, words[0]) : nullptr;
    if (pCommand != nullptr) {
        offerForCommand(*pCommand, {words.begin() + 1, words.end()}, &offers);
    } else if (words.size() == 1 && !words[0].empty() && words[0][0] == '-') {
        offerOptions(app, &offers);
    } else if (words.size() == 1) {
        offerCommands(app, &offers);
        offers.words.emplace_back("help", "tell more about a command");
    } else if (words.size() == 2 && words[0] == "help") {
        offerCommands(app, &offers);
    }
    if (offers.bFiles) {
        std::puts(":files");
        return EXIT_DONE;
    }
    for (const auto &[sWord, sDescription] : offers.words) {
        if (sWord.starts_with(words.back())) {
            std::printf("%s%s%s\n", sWord.c_str(), sDescription.empty() ? "" : "\t", sDescription.c_str());
        }
    }
    return EXIT_DONE;
}
