// Keys and values of the settings store on a TinyXML document. No call may
// throw or crash on a damaged file: everything unexpected is a plain failure.
#include "XmlStore.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "../../include/NKR_focuser.h"
#include "XmlFile.h"

using tinyxml2::XMLElement;
using tinyxml2::XMLNode;
using xmlstore::StoreDocument;

namespace {

// Cleans and splits a key path; false when it is too long or a component
// could not be written back as an element name.
bool splitKeyPath(const char* keyPath, std::vector<std::string>& components)
{
    std::string cleaned = keyPath ? keyPath : "";
    if (cleaned.size() >= XML_PATH_MAX) return false;
    clearSpace(cleaned.data());
    int count = getFolderName(cleaned.c_str(), nullptr);
    if (count < 0) return false;
    std::unique_ptr<char[][XML_PATH_MAX]> rows(new char[count > 0 ? count : 1][XML_PATH_MAX]);
    getFolderName(cleaned.c_str(), rows.get());
    components.clear();
    for (int i = 0; i < count; ++i) components.emplace_back(rows[i]);
    return true;
}

std::string cleanName(const char* name)
{
    std::string cleaned = name;
    clearSpace(cleaned.data());
    return cleaned;
}

std::string creationDate()
{
    time_t now = time(nullptr);
    struct tm t {};
    localtime_r(&now, &t);
    char text[64];
    std::snprintf(text, sizeof text, "%04d%02d%02d_%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1,
                  t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

std::string toHex(const unsigned char* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex(2 * len, '0');
    for (size_t i = 0; i < len; ++i) {
        hex[2 * i] = digits[data[i] >> 4];
        hex[2 * i + 1] = digits[data[i] & 0x0f];
    }
    return hex;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isHexText(const char* text)
{
    for (; *text != '\0'; ++text)
        if (hexDigit(*text) < 0) return false;
    return true;
}

// Whole-text decimal integer; a file is never trusted to hold one.
bool parseDecimal(const char* text, int* value)
{
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
    *value = static_cast<int>(v);
    return true;
}

int failOpen(xmlHandle* handle, std::unique_ptr<StoreDocument>& doc)
{
    doc.reset();
    *handle = xmlHandle{};
    return 0;
}

int openKey(const char* fileName, const char* keyPath, xmlHandle* handle)
{
    std::string path;
    if (!xmlstore::configFilePath(fileName, path)) {
        *handle = xmlHandle{};
        return 0;
    }
    auto doc = std::make_unique<StoreDocument>(path);
    std::string error;
    if (!xmlstore::loadDocument(*doc, error)) {
        NKRDbgPrint("XMLOpenKey", "Could not load test file %s. Error='%s'. Exiting.\n",
                    path.c_str(), error.c_str());
        return failOpen(handle, doc);
    }
    std::vector<std::string> components;
    if (!splitKeyPath(keyPath, components)) return failOpen(handle, doc);
    XMLNode* node = doc.get();
    for (const std::string& name : components) {
        XMLElement* child = node->FirstChildElement(name.c_str());
        if (child == nullptr) {
            NKRDbgPrint("XMLOpenKey", "find child err\n");
            return failOpen(handle, doc);
        }
        node = child;
    }
    *handle = xmlHandle{doc.release(), node};
    return 1;
}

int createKey(const char* fileName, const char* keyPath, xmlHandle* handle, const char* attr)
{
    *handle = xmlHandle{};
    std::string path;
    if (!xmlstore::configFilePath(fileName, path)) return 0;
    std::vector<std::string> components;
    if (!splitKeyPath(keyPath, components) || components.empty()) return 0;
    for (const std::string& name : components)
        if (!xmlstore::isXmlName(name.c_str())) return 0;

    auto doc = std::make_unique<StoreDocument>(path);
    std::string error;
    if (!xmlstore::loadDocument(*doc, error)) {
        NKRDbgPrint("XMLCreateKey", "Could not load test file %s. Error='%s'. Create new.\n",
                    path.c_str(), error.c_str());
        doc->Clear();
        doc->InsertFirstChild(doc->NewDeclaration());
    }
    XMLNode* node = doc.get();
    for (size_t i = 0; i < components.size(); ++i) {
        const char* name = components[i].c_str();
        XMLElement* child = node->FirstChildElement(name);
        if (child == nullptr) {
            child = doc->NewElement(name);
            child->SetAttribute("date", creationDate().c_str());
            if (i + 1 == components.size() && attr != nullptr) child->SetAttribute("attr", attr);
            node->InsertEndChild(child);
        }
        node = child;
    }
    *handle = xmlHandle{doc.release(), node};
    return 1;
}

void setValue(xmlHandle* handle, const char* name, const int* attr, int type,
              const unsigned char* data, int len)
{
    const std::string hex = toHex(data, static_cast<size_t>(len));
    const std::string cleaned = cleanName(name);
    if (!xmlstore::isXmlName(cleaned.c_str())) return;
    const std::string typeText = std::to_string(type);
    XMLNode* key = handle->pKey;

    for (XMLElement* child = key->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (child->Attribute("type") == nullptr || child->GetText() == nullptr) {
            NKRDbgPrint("XMLSetValueEx", "content error, remove item\n");
            key->DeleteChild(child);
            break;
        }
        if (cleaned == child->Name()) {
            child->SetText(hex.c_str());
            child->SetAttribute("type", typeText.c_str());
            if (attr != nullptr) child->SetAttribute("attr", std::to_string(*attr).c_str());
            return;
        }
    }
    XMLElement* element = handle->pDoc->NewElement(cleaned.c_str());
    element->SetAttribute("type", typeText.c_str());
    if (attr != nullptr) element->SetAttribute("attr", std::to_string(*attr).c_str());
    key->InsertEndChild(element);
    element->SetText(hex.c_str());
}

int queryValue(xmlHandle* handle, const char* name, int* attr, int* type, unsigned char* data,
               int* len, size_t capacity)
{
    const std::string cleaned = cleanName(name);
    const XMLElement* element = handle->pKey->FirstChildElement(cleaned.c_str());
    if (element == nullptr) return 0;
    int attrValue = 0;
    if (attr != nullptr && parseDecimal(element->Attribute("attr"), &attrValue)) *attr = attrValue;

    int typeValue = 0;
    const char* text = element->GetText();
    if (text == nullptr || !parseDecimal(element->Attribute("type"), &typeValue)) return 0;
    if (!isHexText(text)) return 0;
    const size_t stored = std::strlen(text) / 2;
    if (stored > INT_MAX) return 0;
    if (type != nullptr) *type = typeValue;
    if (len != nullptr) *len = static_cast<int>(stored);
    if (data == nullptr) return 1;

    const size_t copied = stored < capacity ? stored : capacity;
    for (size_t i = 0; i < copied; ++i)
        data[i] = static_cast<unsigned char>(hexDigit(text[2 * i]) << 4 | hexDigit(text[2 * i + 1]));
    return 1;
}

}  // namespace

int XMLOpenKey(const char* fileName, const char* keyPath, xmlHandle* handle)
{
    if (handle == nullptr) return 0;
    try {
        return openKey(fileName, keyPath, handle);
    } catch (...) {
        *handle = xmlHandle{};
        return 0;
    }
}

int XMLCreateKey(const char* fileName, const char* keyPath, xmlHandle* handle, const char* attr)
{
    if (handle == nullptr) return 0;
    try {
        return createKey(fileName, keyPath, handle, attr);
    } catch (...) {
        *handle = xmlHandle{};
        return 0;
    }
}

void XMLSetValueEx(xmlHandle* handle, const char* name, const int* attr, int type,
                   const unsigned char* data, int len)
{
    if (handle == nullptr || handle->pDoc == nullptr || handle->pKey == nullptr || len < 1 ||
        name == nullptr || data == nullptr)
        return;
    try {
        setValue(handle, name, attr, type, data, len);
    } catch (...) {
        // Out of memory: the value is simply not stored.
    }
}

int XMLQueryValueEx(xmlHandle* handle, const char* name, int* attr, int* type,
                    unsigned char* data, int* len, size_t capacity)
{
    if (handle == nullptr || handle->pDoc == nullptr || handle->pKey == nullptr || name == nullptr)
        return 0;
    try {
        return queryValue(handle, name, attr, type, data, len, capacity);
    } catch (...) {
        return 0;
    }
}

int XMLCloseKey(xmlHandle* handle)
{
    if (handle == nullptr) return 0;
    int saved = 0;
    if (handle->pDoc != nullptr) {
        try {
            saved = xmlstore::saveDocument(*handle->pDoc) ? 1 : 0;
        } catch (...) {
            saved = 0;
        }
        if (!saved) NKRDbgPrint("XMLCloseKey", "Reg Save failed\n");
        delete handle->pDoc;
    }
    *handle = xmlHandle{};
    return saved;
}

namespace {
constexpr int kIntValueType = 4;
}  // namespace

void XMLSetInt(xmlHandle* handle, const char* name, int value)
{
    const auto u = static_cast<unsigned>(value);
    const unsigned char bytes[4] = {static_cast<unsigned char>(u), static_cast<unsigned char>(u >> 8),
                                    static_cast<unsigned char>(u >> 16),
                                    static_cast<unsigned char>(u >> 24)};
    XMLSetValueEx(handle, name, nullptr, kIntValueType, bytes, sizeof bytes);
}

int XMLQueryInt(xmlHandle* handle, const char* name, int preset)
{
    const auto p = static_cast<unsigned>(preset);
    unsigned char bytes[4] = {static_cast<unsigned char>(p), static_cast<unsigned char>(p >> 8),
                              static_cast<unsigned char>(p >> 16),
                              static_cast<unsigned char>(p >> 24)};
    int type = 0;
    int len = 0;
    XMLQueryValueEx(handle, name, nullptr, &type, bytes, &len, sizeof bytes);
    return static_cast<int>(bytes[0] | bytes[1] << 8 | bytes[2] << 16 |
                            static_cast<unsigned>(bytes[3]) << 24);
}
