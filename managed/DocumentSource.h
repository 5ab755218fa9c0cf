// What the three passes of a policy share.
#pragma once

#include "managed/VXPolicyEnforcementImpl.h"
#include "policy/PolicyValues.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::detail {

/// Selects a feature of the policy.
HVBEnterprise::PolicySetting featureSetting(std::string_view feature);

/// The narrow form of a policy's text. None, with a trace line, when it is longer than its readers have room for.
std::optional<std::string> narrowPolicyText(const std::wstring& text);
/// The same line for a text that was found to be too long.
void traceTooLong();

/// How many entries are looked for when a list declares that many. A number that is cut is traced, so ask once for each
/// list.
int boundedCount(int declared);

/// Where a look-up delivers a text.
using TextBuffer = std::array<wchar_t, kPolicyTextCharacters>;

/// A policy, whose keys are looked up in their feature or by their section alone.
/// Threads: plain, single access. Owner: a pass; the document outlives it.
class DocumentSource : public policy::PolicySource {
public:
    explicit DocumentSource(const HVBEnterprise::SectionsHandle& document) : m_document(document) {}

    std::optional<int> number(const policy::PolicyKey& key, int index) const override;
    std::optional<policy::PolicyText> text(const policy::PolicyKey& key, int index) const override;

private:
    bool find(const policy::PolicyKey& key, int index, void* destination, VALUETYPE type) const;
    std::wstring whole(const policy::PolicyKey& key, int index) const;

    const HVBEnterprise::SectionsHandle& m_document;
    mutable TextBuffer m_buffer{};
};

/// One section of a policy, which was read as a whole.
/// Threads: plain, single access. Owner: a pass; the section outlives it.
class SectionSource : public policy::PolicySource {
public:
    explicit SectionSource(const VXPolicyEnforcementImpl::Section& section) : m_section(section) {}

    std::optional<int> number(const policy::PolicyKey& key, int index) const override;
    std::optional<policy::PolicyText> text(const policy::PolicyKey& key, int index) const override;

private:
    const VXPolicyEnforcementImpl::Section& m_section;
    mutable TextBuffer m_buffer{};
};

} // namespace Sentrel::detail
