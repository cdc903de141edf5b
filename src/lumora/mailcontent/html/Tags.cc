#include "lumora/mailcontent/html/Tags.h"

#include <array>
#include <unordered_map>

namespace lumora::html {
namespace {

constexpr std::array<std::string_view, static_cast<size_t>(TagId::unknown)> kNames = {
#define LUMORA_HTML_TAG_NAME(id, name) name,
    LUMORA_HTML_TAGS(LUMORA_HTML_TAG_NAME)
#undef LUMORA_HTML_TAG_NAME
};

using TagSet = std::array<bool, static_cast<size_t>(TagId::unknown) + 1>;

constexpr TagSet setOf(std::initializer_list<TagId> ids) {
  TagSet set{};
  for (const TagId id : ids) set[static_cast<size_t>(id)] = true;
  return set;
}

using T = TagId;

// The tags after which, or before whose content, the text of an element gets a space.
constexpr TagSet kBlock = setOf({
    T::html,     T::head,     T::body,      T::frameset,   T::script,   T::noscript, T::style,
    T::meta,     T::link,     T::title,     T::frame,      T::noframes, T::section,  T::nav,
    T::aside,    T::hgroup,   T::header,    T::footer,     T::p,        T::h1,       T::h2,
    T::h3,       T::h4,       T::h5,        T::h6,         T::ul,       T::ol,       T::pre,
    T::div,      T::blockquote, T::hr,      T::address,    T::figure,   T::figcaption,
    T::form,     T::fieldset, T::ins,       T::del,        T::s,        T::dl,       T::dt,
    T::dd,       T::li,       T::table,     T::caption,    T::thead,    T::tfoot,    T::tbody,
    T::colgroup, T::col,      T::tr,        T::th,         T::td,       T::video,    T::audio,
    T::canvas,   T::details,  T::menu,      T::plaintext,  T::template_, T::article, T::main,
    T::svg,      T::math,
});

constexpr TagSet kPreserveWhitespace = setOf({T::pre, T::plaintext, T::title, T::textarea});

constexpr TagSet kSpecial = setOf({
    T::address,  T::applet,   T::area,     T::article,  T::aside,     T::base,      T::basefont,
    T::bgsound,  T::blockquote, T::body,   T::br,       T::button,    T::caption,   T::center,
    T::col,      T::colgroup, T::dd,       T::details,  T::dir,       T::div,       T::dl,
    T::dt,       T::embed,    T::fieldset, T::figcaption, T::figure,  T::footer,    T::form,
    T::frame,    T::frameset, T::h1,       T::h2,       T::h3,        T::h4,        T::h5,
    T::h6,       T::head,     T::header,   T::hgroup,   T::hr,        T::html,      T::iframe,
    T::img,      T::input,    T::keygen,   T::li,       T::link,      T::listing,   T::main,
    T::marquee,  T::menu,     T::meta,     T::nav,      T::noembed,   T::noframes,  T::noscript,
    T::object,   T::ol,       T::p,        T::param,    T::plaintext, T::pre,       T::script,
    T::search,   T::section,  T::select,   T::source,   T::style,     T::summary,   T::table,
    T::tbody,    T::td,       T::template_, T::textarea, T::tfoot,    T::th,        T::thead,
    T::title,    T::tr,       T::track,    T::ul,       T::wbr,       T::xmp,
});

bool in(const TagSet& set, TagId id) { return set[static_cast<size_t>(id)]; }

}  // namespace

TagId tagIdOf(std::string_view name) {
  static const std::unordered_map<std::string_view, TagId> byName = [] {
    std::unordered_map<std::string_view, TagId> map;
    for (size_t i = 0; i < kNames.size(); ++i) map.emplace(kNames[i], static_cast<TagId>(i));
    return map;
  }();
  const auto it = byName.find(name);
  return it == byName.end() ? TagId::unknown : it->second;
}

std::string_view tagNameOf(TagId id) {
  return id == TagId::unknown ? std::string_view() : kNames[static_cast<size_t>(id)];
}

bool isBlockTag(TagId id) { return in(kBlock, id); }
bool preservesWhitespace(TagId id) { return in(kPreserveWhitespace, id); }
bool isSpecial(TagId id) { return in(kSpecial, id); }

}  // namespace lumora::html
