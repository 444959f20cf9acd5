// A report of named values in sections, printed as aligned text or as one
// JSON object. Values a unit cannot give are kept with the reason, shown as
// "not supported" / "unavailable (...)" in text and as null plus an entry in
// the section's "unavailable" object in JSON.
#pragma once

#include <string>
#include <vector>

#include "json.h"

namespace nkrtool {

class Report {
public:
    // Starts a section; key names it in JSON, title in text.
    void section(const std::string& key, const std::string& title);
    // A value with its text form; an empty label keeps it out of the text.
    void add(const std::string& key, const std::string& label, Json value, std::string text);
    // A value read with a library call: code 0 keeps value/text, any other
    // code records the value as unavailable.
    void addRead(const std::string& key, const std::string& label, int code, Json value,
                 std::string text);
    // A value that was not read at all (feature missing).
    void addUnavailable(const std::string& key, const std::string& label, std::string reason);
    // A whole section the unit cannot give: one line in text, null in JSON
    // (with the reason under the document's "unavailable").
    void sectionUnavailable(const std::string& key, const std::string& title, std::string reason);

    Json toJson() const;
    void print() const;

private:
    struct Entry {
        std::string key, label, text;
        Json value;
        bool available = true;
    };
    struct Section {
        std::string key, title;
        std::vector<Entry> entries;
        std::string unavailable;  // non-empty: the whole section is missing
    };
    Section& current();
    std::vector<Section> sections_;
};

}  // namespace nkrtool
