#include "OrlinthHost/Service/History.h"

#include "FuzzSupport.h"

/// Whatever the file holds, reading it yields few entries that count, each the same after writing and reading.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orlinth;
    using namespace orlinth::host;
    using fuzzing::demand;
    const EpochMilliseconds now = fromEpochMilliseconds(1'731'686'400'000);
    const std::string content(reinterpret_cast<const char*>(data), size);
    const std::vector<HistoryEntry> entries = History::decodeAll(content, now);
    demand(entries.size() <= History::maxEntries, "few entries");
    std::string written;
    for (const HistoryEntry& entry : entries) {
        demand(entry.time >= now - History::maxAge, "no old ones");
        const std::string line = History::encode(entry);
        demand(line.size() <= History::maxLineBytes, "a bounded line");
        demand(line.find('\n') == std::string::npos, "one line");
        const std::optional<HistoryEntry> again = History::decode(line);
        demand(again && History::encode(*again) == line, "the same again");
        written += line + "\n";
    }
    demand(History::decodeAll(written, now).size() == entries.size(), "as many");
    demand(History::decodeAll(written + "{\"time\":17", now).size() == entries.size(), "also behind a kill");
    return 0;
}
