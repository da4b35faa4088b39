// vesk_utility_xml - the XML operator over TinyXML: one document, elements addressed by
// name paths below the root, saved through a temporary file and a rename.
#ifndef VESK_UTILITY_XML_INTERNAL_H
#define VESK_UTILITY_XML_INTERNAL_H

#include "vesk_utility.h"

class TiXmlDocument;
class TiXmlElement;

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

class vesk_xml_realize final : public vesk_soft::vesk_xml_operate
{
public:
    vesk_xml_realize() = default;
    ~vesk_xml_realize() override;

    VESK_ERR create(const char* root) override;
    VESK_ERR load(const char* path) override;
    VESK_ERR save(const char* path) override;
    VESK_ERR get_root_name(char* buf, unsigned size) override;
    VESK_ERR add_element(const char* parent_path, const char* name) override;
    VESK_ERR set_attr(const char* path, const char* attr, const char* value) override;
    VESK_ERR set_attr_int(const char* path, const char* attr, int value) override;
    VESK_ERR get_attr(const char* path, const char* attr, char* buf, unsigned size) override;
    VESK_ERR get_attr_int(const char* path, const char* attr, int* value) override;
    VESK_ERR set_text(const char* path, const char* text) override;
    VESK_ERR get_text(const char* path, char* buf, unsigned size) override;

private:
    // The element at path, or NULL (no document, no such element, malformed path).
    TiXmlElement* find(const char* path) const;

    TiXmlDocument* m_doc = nullptr;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_XML_INTERNAL_H
