#include "xml/element.h"

#include <ostream>
#include <sstream>

namespace Orrery3 {
namespace XmlIO {
namespace v1 {
namespace {

std::string escaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

template <class T>
std::string toText(const T& value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

}  // namespace

ElementPtr Element::create(const std::string& name) {
    return ElementPtr(new Element(name));
}

ElementPtr Element::addChild(const ElementPtr& child) {
    m_children.push_back(child);
    return child;
}

ElementPtr Element::addChild(const std::string& name) {
    return addChild(create(name));
}

ElementPtr Element::findChild(const std::string& name) const {
    for (const ElementPtr& c : m_children)
        if (c->getName() == name) return c;
    return ElementPtr();
}

void Element::setAttr(const std::string& name, const std::string& value) {
    for (auto& attr : m_attrs) {
        if (attr.first == name) {
            attr.second = value;
            return;
        }
    }
    m_attrs.emplace_back(name, value);
}

void Element::setAttr(const std::string& name, const char* value) {
    setAttr(name, std::string(value));
}
void Element::setAttr(const std::string& name, int64_t value) {
    setAttr(name, toText(value));
}
void Element::setAttr(const std::string& name, uint64_t value) {
    setAttr(name, toText(value));
}
void Element::setAttr(const std::string& name, int value) {
    setAttr(name, toText(value));
}
void Element::setAttr(const std::string& name, double value) {
    setAttr(name, toText(value));
}
void Element::setAttr(const std::string& name, bool value) {
    setAttr(name, std::string(value ? "true" : "false"));
}

bool Element::hasAttr(const std::string& name) const {
    for (const auto& attr : m_attrs)
        if (attr.first == name) return true;
    return false;
}

std::string Element::getAttr(const std::string& name) const {
    for (const auto& attr : m_attrs)
        if (attr.first == name) return attr.second;
    return std::string();
}

void Element::write(std::ostream& os, int indent) const {
    const std::string pad(static_cast<size_t>(indent) * 2, ' ');
    os << pad << '<' << m_name;
    for (const auto& attr : m_attrs)
        os << ' ' << attr.first << "=\"" << escaped(attr.second) << '"';
    if (m_children.empty() && m_text.empty()) {
        os << "/>\n";
        return;
    }
    os << '>' << escaped(m_text);
    if (!m_children.empty()) {
        os << '\n';
        for (const ElementPtr& c : m_children) c->write(os, indent + 1);
        os << pad;
    }
    os << "</" << m_name << ">\n";
}

std::string Element::toString() const {
    std::ostringstream os;
    write(os);
    return os.str();
}

}  // namespace v1
}  // namespace XmlIO
}  // namespace Orrery3
