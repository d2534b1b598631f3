// Fuzzes the XML parser with arbitrary bytes. Whatever parses must serialise into text that
// parses again into the same tree (compared through a second serialisation), and the tree must
// survive path selection and text collection. Rejected input must fail with XmlException only.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "zq/webkeel/transcode.h"
#include "zq/webutil/xmldocument.h"

namespace {

[[noreturn]] void fail(const char* pszWhat, const kiv::String& xml) {
    std::fprintf(stderr, "%s\n%s\n", pszWhat, kiv::toUtf8(xml.view()).c_str());
    std::abort();
}

// Walks a few paths made of the names actually present, so selection finds something.
void walk(const kiv::XmlElement& root) {
    const std::size_t nRootTextLength = root.getInnerText().size();
    for (const kiv::XmlElement* pChild = root.getFirstChildElement(); pChild != nullptr;
         pChild = pChild->getNextSiblingElement()) {
        const kiv::XmlElement* pGrandChild = pChild->getFirstChildElement();
        kiv::String path = pChild->getName();
        if (pGrandChild != nullptr) {
            path += L"/";
            path += pGrandChild->getName();
        }
        const std::vector<const kiv::XmlElement*> vecFound = root.selectElements(path.view());
        const kiv::XmlElement* pFirst = root.selectSingleElement(path.view());
        if (vecFound.empty() || pFirst != vecFound.front()) {
            fail("selectSingleElement disagrees with selectElements", path);
        }
        for (const kiv::XmlElement* pElement : vecFound) {
            if (pElement->getInnerText().size() > nRootTextLength) {
                fail("a part has more text than the whole", pElement->getName());
            }
            for (const auto& attribute : pElement->getAttributes()) {
                if (pElement->findAttribute(attribute.first.view()) == nullptr) {
                    fail("attribute not found by name", attribute.first);
                }
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kiv::XmlDocument doc;
    try {
        doc = kiv::XmlDocument::parseString(
            std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const kiv::XmlException&) {
        return 0;
    }
    const kiv::XmlElement* pRoot = doc.getDocumentElement();
    if (pRoot == nullptr) {
        std::abort();
    }
    const kiv::String xml = pRoot->toXmlString();
    kiv::XmlDocument again;
    try {
        again = kiv::XmlDocument::parseString(xml);
    } catch (const kiv::XmlException& e) {
        std::fprintf(stderr, "%s\n", e.what());
        fail("the serialisation does not parse", xml);
    }
    if (!again.getDocumentElement()->toXmlString().equals(xml)) {
        fail("the serialisation does not read back as the same tree", xml);
    }
    if (!again.getDocumentElement()->getInnerText().equals(pRoot->getInnerText())) {
        fail("the inner text changed on the way", xml);
    }
    walk(*pRoot);
    return 0;
}
