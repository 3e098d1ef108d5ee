// Helpers that lay out statistics reports: blocks of named entries.
#pragma once

#include <string>

#include "xml/element.h"

namespace TESSERA {
namespace Private {

// <block name="NAME"> appended to parent.
inline Orrery3::XmlIO::v1::ElementPtr addStatisticsBlock(Orrery3::XmlIO::v1::Element& parent,
                                                         const std::string& name) {
    Orrery3::XmlIO::v1::ElementPtr block = parent.addChild("block");
    block->setAttr("name", name);
    return block;
}

// <entry name="NAME" value="VALUE"/> appended to block.
template <class T>
void addStatisticsEntry(Orrery3::XmlIO::v1::Element& block, const std::string& name,
                        const T& value) {
    Orrery3::XmlIO::v1::ElementPtr entry = block.addChild("entry");
    entry->setAttr("name", name);
    entry->setAttr("value", value);
}

}  // namespace Private
}  // namespace TESSERA
