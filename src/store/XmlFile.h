// The settings file on disk: where it lives, loading it defensively and
// replacing it atomically. Internal to the store.
#pragma once

#include <tinyxml2.h>

#include <string>

namespace xmlstore {

// A document that remembers the file it belongs to, so closing a key can
// write it back without the caller repeating the file name.
class StoreDocument : public tinyxml2::XMLDocument {
public:
    explicit StoreDocument(std::string path) : m_path(std::move(path)) {}
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// "$HOME/.HTX/" + fileName, creating the directory when needed. False when
// the directory cannot be found or made, or the path would not fit 256 bytes.
bool configFilePath(const char* fileName, std::string& path);
// Parses doc's file. False, with a description in error, when the file is
// missing, not a regular file, oversized, unreadable or not XML.
bool loadDocument(StoreDocument& doc, std::string& error);
// Writes doc to a temporary file beside its file, syncs it, makes it 0666 and
// renames it over the old one; the old file is untouched on any failure.
bool saveDocument(StoreDocument& doc);
// True when TinyXML can read name back as an element name.
bool isXmlName(const char* name);

}  // namespace xmlstore
