// vesk_utility_xml - the XML operator over TinyXML: one small document per operator, built or
// loaded, read back by name paths, and saved so that a power cut never leaves half a file.
#include "store/vesk_utility_xml.h"

#include <tinyxml.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/vesk_utility_log.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_xml_realize";
constexpr unsigned k_path_component_max = 128;

// Copies text into buf; false when it does not fit.
bool copy_out(const char* text, char* buf, unsigned size)
{
    const size_t len = strlen(text);
    if (len >= size)
        return false;
    memcpy(buf, text, len + 1);
    return true;
}

// The i-th child element named `name` (0-based) of parent.
TiXmlElement* nth_child(TiXmlElement* parent, const char* name, unsigned index)
{
    for (TiXmlElement* e = parent->FirstChildElement(name); e != nullptr; e = e->NextSiblingElement(name)) {
        if (index == 0)
            return e;
        index--;
    }
    return nullptr;
}

} // namespace

vesk_xml_realize::~vesk_xml_realize()
{
    delete m_doc;
}

TiXmlElement* vesk_xml_realize::find(const char* path) const
{
    if (m_doc == nullptr || path == nullptr)
        return nullptr;
    TiXmlElement* e = m_doc->RootElement();
    const char* p = path;
    while (e != nullptr && *p != '\0') {
        const char* end = strchr(p, '/');
        const size_t len = end != nullptr ? static_cast<size_t>(end - p) : strlen(p);
        if (len == 0 || len >= k_path_component_max)
            return nullptr;
        char name[k_path_component_max];
        memcpy(name, p, len);
        name[len] = '\0';
        unsigned index = 0;
        char* bracket = strchr(name, '[');
        if (bracket != nullptr) {
            char* close = nullptr;
            index = static_cast<unsigned>(strtoul(bracket + 1, &close, 10));
            if (close == bracket + 1 || *close != ']' || close[1] != '\0')
                return nullptr;
            *bracket = '\0';
        }
        e = nth_child(e, name, index);
        p += len;
        if (*p == '/')
            p++;
    }
    return e;
}

VESK_ERR vesk_xml_realize::create(const char* root)
{
    if (root == nullptr || *root == '\0')
        return VESK_ERR_INVALID_PARAM;
    auto* doc = new (std::nothrow) TiXmlDocument();
    if (doc == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    doc->LinkEndChild(new TiXmlDeclaration("1.0", "UTF-8", ""));
    doc->LinkEndChild(new TiXmlElement(root));
    delete m_doc;
    m_doc = doc;
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::load(const char* path)
{
    if (path == nullptr)
        return VESK_ERR_INVALID_PARAM;
    auto* doc = new (std::nothrow) TiXmlDocument();
    if (doc == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    if (!doc->LoadFile(path) || doc->RootElement() == nullptr) {
        VESK_LOG_ERR(k_cls, "load %s fail: %s\n", path, doc->ErrorDesc());
        delete doc;
        return VESK_ERR_OPERATE_FAIL;
    }
    delete m_doc;
    m_doc = doc;
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::save(const char* path)
{
    if (path == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_doc == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    char tmp[512];
    if (snprintf(tmp, sizeof(tmp), "%s.tmp", path) >= static_cast<int>(sizeof(tmp)))
        return VESK_ERR_INVALID_PARAM;
    FILE* fp = fopen(tmp, "w");
    if (fp == nullptr) {
        VESK_LOG_ERR(k_cls, "fopen %s fail, %s\n", tmp, strerror(errno));
        return VESK_ERR_OPERATE_FAIL;
    }
    const bool written = m_doc->SaveFile(fp) && fflush(fp) == 0 && fsync(fileno(fp)) == 0;
    if (fclose(fp) != 0 || !written || rename(tmp, path) != 0) {
        VESK_LOG_ERR(k_cls, "save %s fail, %s\n", path, strerror(errno));
        unlink(tmp);
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::get_root_name(char* buf, unsigned size)
{
    if (buf == nullptr || size == 0)
        return VESK_ERR_INVALID_PARAM;
    const TiXmlElement* root = m_doc != nullptr ? m_doc->RootElement() : nullptr;
    if (root == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    snprintf(buf, size, "%s", root->Value());
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::add_element(const char* parent_path, const char* name)
{
    if (parent_path == nullptr || name == nullptr || *name == '\0')
        return VESK_ERR_INVALID_PARAM;
    TiXmlElement* parent = find(parent_path);
    if (parent == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    parent->LinkEndChild(new TiXmlElement(name));
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::set_attr(const char* path, const char* attr, const char* value)
{
    if (attr == nullptr || *attr == '\0' || value == nullptr)
        return VESK_ERR_INVALID_PARAM;
    TiXmlElement* e = find(path);
    if (e == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    e->SetAttribute(attr, value);
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::set_attr_int(const char* path, const char* attr, int value)
{
    char text[16];
    snprintf(text, sizeof(text), "%d", value);
    return set_attr(path, attr, text);
}

VESK_ERR vesk_xml_realize::get_attr(const char* path, const char* attr, char* buf, unsigned size)
{
    if (attr == nullptr || buf == nullptr || size == 0)
        return VESK_ERR_INVALID_PARAM;
    const TiXmlElement* e = find(path);
    const char* value = e != nullptr ? e->Attribute(attr) : nullptr;
    if (value == nullptr || !copy_out(value, buf, size))
        return VESK_ERR_OPERATE_FAIL;
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::get_attr_int(const char* path, const char* attr, int* value)
{
    if (value == nullptr)
        return VESK_ERR_INVALID_PARAM;
    char text[16];
    const VESK_ERR ret = get_attr(path, attr, text, sizeof(text));
    if (ret != VESK_OK)
        return ret;
    char* end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX)
        return VESK_ERR_OPERATE_FAIL;
    *value = static_cast<int>(v);
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::set_text(const char* path, const char* text)
{
    if (text == nullptr)
        return VESK_ERR_INVALID_PARAM;
    TiXmlElement* e = find(path);
    if (e == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    for (TiXmlNode* child = e->FirstChild(); child != nullptr;) {
        TiXmlNode* next = child->NextSibling();
        if (child->ToText() != nullptr)
            e->RemoveChild(child);
        child = next;
    }
    e->LinkEndChild(new TiXmlText(text));
    return VESK_OK;
}

VESK_ERR vesk_xml_realize::get_text(const char* path, char* buf, unsigned size)
{
    if (buf == nullptr || size == 0)
        return VESK_ERR_INVALID_PARAM;
    const TiXmlElement* e = find(path);
    if (e == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    const char* text = e->GetText();
    return copy_out(text != nullptr ? text : "", buf, size) ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

} // namespace vesk_utility
