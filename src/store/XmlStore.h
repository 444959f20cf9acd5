// Registry-like settings store: one XML file per file name in $HOME/.HTX/.
// A key path ("software\\Vendor") names nested elements; each value is a child
// element of the key whose text is the value's bytes in lowercase hex:
//
//   <software date="20240501_093005">
//       <HTX_Drevomat date="20240501_093005">
//           <Position type="4">e8030000</Position>
//
// Functions return 1 on success and 0 on failure. Open/create load the whole
// file; close writes it back (atomically: temp file, fsync, rename).
#pragma once

#include <cstddef>

namespace tinyxml2 {
class XMLNode;
}  // namespace tinyxml2
namespace xmlstore {
class StoreDocument;
}  // namespace xmlstore

// Longest configuration path, key path and key component (with the NUL).
inline constexpr size_t XML_PATH_MAX = 256;

// An open key: the loaded document and the element of the key's last
// component (the document itself for an empty key path). Two nulls: closed.
struct xmlHandle {
    xmlstore::StoreDocument* pDoc = nullptr;
    tinyxml2::XMLNode* pKey = nullptr;
};

// Writes "$HOME/.HTX/" into dir (size bytes) and creates the directory when
// it is missing (0700, then chmod 0777).
int initConfigSaveDir(char* dir, size_t size);
// Counts the components of a key path ('\\' or '/' separated, empty ones
// skipped); copies each into the next row of out when out is not null.
// Returns -1 when a component does not fit a row.
int getFolderName(const char* path, char (*out)[XML_PATH_MAX]);
// The character an element name uses in place of c ('_' for the unsafe ones).
char replaceChar(char c);
// Replaces every unsafe character of text in place (null or empty: nothing).
void clearSpace(char* text);

int XMLOpenKey(const char* fileName, const char* keyPath, xmlHandle* handle);
// Opens or creates the file and every missing component; attr (may be null)
// is set on the last component when that one is created.
int XMLCreateKey(const char* fileName, const char* keyPath, xmlHandle* handle, const char* attr);
// Stores len bytes of data as value name (replacing an existing one).
void XMLSetValueEx(xmlHandle* handle, const char* name, const int* attr, int type,
                   const unsigned char* data, int len);
// Reads value name: *attr (when attr and the value have one), *type, *len (the
// stored length, which may exceed capacity) and at most capacity bytes into
// data (may be null). Fails when the value is missing or damaged.
int XMLQueryValueEx(xmlHandle* handle, const char* name, int* attr, int* type,
                    unsigned char* data, int* len, size_t capacity);
// Saves the document to its file, releases it and clears the handle.
int XMLCloseKey(xmlHandle* handle);

// A 32-bit value stored as four little-endian bytes of value type 4.
void XMLSetInt(xmlHandle* handle, const char* name, int value);
// Reads such a value over preset: a missing value leaves the preset, a
// shorter stored value replaces only its first bytes, a longer one is cut.
int XMLQueryInt(xmlHandle* handle, const char* name, int preset);
