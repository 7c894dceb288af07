#include "journal.h"

#include "text.h"

namespace gripperctl::doctor {

Run readJournal(const Facts &facts, JournalPart part)
{
    // With a limit, because ten wrong requests a second fill 36,000 lines an hour.
    std::vector<std::string> words{"journalctl", "--quiet", "--no-pager", "--lines=5000",
                                   "--unit=" + facts.unit.name};
    switch (part) {
    case JournalPart::LastHour:
        words.insert(words.end(), {"--namespace=gripperd", "--since=-1h", "--output=cat"});
        break;
    case JournalPart::Latest:
        words.insert(words.end(), {"--namespace=+gripperd", "--output=short-iso-precise"});
        break;
    }
    Run run = Machine::run(words);
    // It ends with 0 although it may open no file.
    if (run.output.empty() && !run.error.empty())
        run.status = 1;
    return run;
}

} // namespace gripperctl::doctor
