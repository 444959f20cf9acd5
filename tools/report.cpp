#include "report.h"

#include "errors.h"
#include "output.h"

namespace nkrtool {

Report::Section& Report::current()
{
    if (sections_.empty()) sections_.push_back({"", "", {}, ""});
    return sections_.back();
}

void Report::section(const std::string& key, const std::string& title)
{
    sections_.push_back({key, title, {}, ""});
}

void Report::sectionUnavailable(const std::string& key, const std::string& title, std::string reason)
{
    sections_.push_back({key, title, {}, std::move(reason)});
}

void Report::add(const std::string& key, const std::string& label, Json value, std::string text)
{
    // A missing text value is null in JSON, never "".
    if (value.isEmptyString()) value = Json();
    current().entries.push_back({key, label, std::move(text), std::move(value), true});
}

void Report::addRead(const std::string& key, const std::string& label, int code, Json value,
                     std::string text)
{
    if (code == 0)
        add(key, label, std::move(value), std::move(text));
    else
        addUnavailable(key, label, unavailableText(code));
}

void Report::addUnavailable(const std::string& key, const std::string& label, std::string reason)
{
    current().entries.push_back({key, label, std::move(reason), Json(), false});
}

Json Report::toJson() const
{
    Json doc = Json::object();
    Json missing = Json::object();
    bool anyMissing = false;
    for (const Section& s : sections_) {
        if (!s.unavailable.empty()) {
            doc.set(s.key, Json());
            missing.set(s.key, s.unavailable);
            anyMissing = true;
            continue;
        }
        Json values = Json::object();
        Json unavailable = Json::object();
        bool anyUnavailable = false;
        for (const Entry& e : s.entries) {
            values.set(e.key, e.value);
            if (!e.available) {
                unavailable.set(e.key, e.text);
                anyUnavailable = true;
            }
        }
        if (anyUnavailable) values.set("unavailable", unavailable);
        if (s.key.empty()) {
            // Top-level values go straight into the document.
            for (const Entry& e : s.entries) doc.set(e.key, e.value);
        } else {
            doc.set(s.key, values);
        }
    }
    if (anyMissing) doc.set("unavailable", missing);
    return doc;
}

void Report::print() const
{
    for (const Section& s : sections_) {
        if (!s.title.empty()) sayHeading(s.title);
        if (!s.unavailable.empty()) sayField(s.title, paint(Colour::Dim, s.unavailable));
        // An entry without a label is for JSON only.
        for (const Entry& e : s.entries)
            if (!e.label.empty()) sayField(e.label, e.available ? e.text : paint(Colour::Dim, e.text));
    }
}

}  // namespace nkrtool
