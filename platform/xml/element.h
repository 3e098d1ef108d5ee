// Orrery3::XmlIO::v1::Element: a small XML element tree for reports.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "../util/ref_ptr.h"

namespace Orrery3 {
namespace XmlIO {
namespace v1 {

class Element;
using ElementPtr = RCX_ptr_v4::ref_ptr<Element>;

// An element with a name, ordered attributes, text and child elements.
// Attribute values are kept as text; numbers are written with the stream's
// default formatting.
class TESSERA_API Element : public ThreadSafeRefBase {
public:
    static ElementPtr create(const std::string& name);

    const std::string& getName() const { return m_name; }

    ElementPtr addChild(const ElementPtr& child);
    // Creates a child element with this name, appends it and returns it.
    ElementPtr addChild(const std::string& name);
    const std::vector<ElementPtr>& getChildren() const { return m_children; }
    // The first child with this name, or null.
    ElementPtr findChild(const std::string& name) const;

    // Replaces the value of an existing attribute, or appends a new one.
    void setAttr(const std::string& name, const std::string& value);
    void setAttr(const std::string& name, const char* value);
    void setAttr(const std::string& name, int64_t value);
    void setAttr(const std::string& name, uint64_t value);
    void setAttr(const std::string& name, int value);
    void setAttr(const std::string& name, double value);
    void setAttr(const std::string& name, bool value);
    bool hasAttr(const std::string& name) const;
    // The attribute's text, or "" when it is absent.
    std::string getAttr(const std::string& name) const;
    const std::vector<std::pair<std::string, std::string>>& getAttrs() const { return m_attrs; }

    void setText(const std::string& text) { m_text = text; }
    const std::string& getText() const { return m_text; }

    // Indented XML text, characters &<>" escaped; no declaration line.
    void write(std::ostream& os, int indent = 0) const;
    std::string toString() const;

private:
    explicit Element(std::string name) : m_name(std::move(name)) {}

    std::string m_name;
    std::vector<std::pair<std::string, std::string>> m_attrs;
    std::vector<ElementPtr> m_children;
    std::string m_text;
};

}  // namespace v1
}  // namespace XmlIO
}  // namespace Orrery3
