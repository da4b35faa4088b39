// vesk_utility_xml.h - the XML operator: one small document in memory (configuration snippets,
// records such as the watchdog's cause), built, read back and saved to a file.
//
// Contract
//   Elements are addressed by a path of element names below the root, separated by '/':
//   "" is the root itself, "net/eth0" the first <eth0> inside the first <net> of the root.
//   add_element always appends, so a later element of a repeated name is reachable only by
//   walking with the index form "name[i]" (0-based) in any path component.
//   An operator is not thread-safe: one thread uses it at a time, or the caller locks.
//   Failures return VESK_ERR_INVALID_PARAM (NULL or empty argument where one is required) or
//   VESK_ERR_OPERATE_FAIL (no document, element or attribute not found, file unreadable or
//   malformed, write failed) and leave the document as it was.
//   The document lives on the general heap, outside the layer's memory accounting; keep
//   documents small.
#ifndef VESK_UTILITY_XML_H
#define VESK_UTILITY_XML_H

#include "vesk_utility_types.h"

namespace vesk_soft
{

class vesk_xml_operate
{
public:
    vesk_xml_operate() = default;
    vesk_xml_operate(const vesk_xml_operate&) = delete;
    vesk_xml_operate& operator=(const vesk_xml_operate&) = delete;

    // Replaces the document with an empty one whose root element is `root`.
    virtual VESK_ERR create(const char* root) = 0;
    // Replaces the document with the one in the file; on failure the old one stays.
    virtual VESK_ERR load(const char* path) = 0;
    // Writes the document to a temporary file beside path, flushes it to the disk and renames
    // it over path, so that a power cut leaves either the old file or the new one.
    virtual VESK_ERR save(const char* path) = 0;
    // Name of the root element into buf (NUL-terminated, cut to size).
    virtual VESK_ERR get_root_name(char* buf, unsigned size) = 0;
    // Appends a new element `name` inside the element at parent_path.
    virtual VESK_ERR add_element(const char* parent_path, const char* name) = 0;
    // Sets (or replaces) an attribute of the element at path.
    virtual VESK_ERR set_attr(const char* path, const char* attr, const char* value) = 0;
    virtual VESK_ERR set_attr_int(const char* path, const char* attr, int value) = 0;
    // Reads an attribute into buf (NUL-terminated; VESK_ERR_OPERATE_FAIL if it does not fit).
    virtual VESK_ERR get_attr(const char* path, const char* attr, char* buf, unsigned size) = 0;
    // Reads an attribute that must be a whole decimal integer.
    virtual VESK_ERR get_attr_int(const char* path, const char* attr, int* value) = 0;
    // Replaces the text inside the element / reads it (empty text reads as "").
    virtual VESK_ERR set_text(const char* path, const char* text) = 0;
    virtual VESK_ERR get_text(const char* path, char* buf, unsigned size) = 0;
    virtual ~vesk_xml_operate() { }
};

// A new operator without a document, recorded on the "xml fd" list with the caller's id and
// name. NULL before initialisation.
VESK_API vesk_xml_operate* vesk_utility_new_xml_operate(vesk_user_id usr_id, const char* name);
// Destroys an operator from the call above; an unknown one is fatal.
VESK_API VESK_ERR vesk_utility_delete_xml_operate(vesk_xml_operate* op, const char* file, const char* func);

} // namespace vesk_soft

#endif // VESK_UTILITY_XML_H
