#include "platform/hvbutils/LibXmlWrapper.h"

#include "platform/hvbutils/XmlFile.h"

#include <utility>

LibXmlWrapper::LibXmlWrapper(std::string path) : m_file(std::make_unique<XmlFile>(std::move(path))) {}

LibXmlWrapper::~LibXmlWrapper() = default;

std::string LibXmlWrapper::getXPathStringValue(const char* xpath) {
    return m_file->textAt(xpath);
}

bool LibXmlWrapper::getXPathBoolValue(const char* xpath) {
    return m_file->truthAt(xpath);
}

void LibXmlWrapper::setXPathElement(const char* xpath, const char* value) {
    m_file->setTextAt(xpath, value);
}

bool LibXmlWrapper::SaveToFile(char* path) {
    return m_file->saveTo(path);
}
