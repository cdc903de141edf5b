// The tag names the tree builder and the text rules know, each named once, and the sets of
// them that the rules speak of.
#pragma once

#include <cstdint>
#include <string_view>

namespace lumora::html {

// Every name the tree construction treats specially, or that the text rules flag. Any other
// name is `unknown` and keeps its own spelling in the element.
#define LUMORA_HTML_TAGS(X)                                                                      \
  X(a, "a") X(address, "address") X(applet, "applet") X(area, "area") X(article, "article")      \
  X(aside, "aside") X(audio, "audio") X(b, "b") X(base, "base") X(basefont, "basefont")          \
  X(bgsound, "bgsound") X(big, "big") X(blockquote, "blockquote") X(body, "body") X(br, "br")    \
  X(button, "button") X(canvas, "canvas") X(caption, "caption") X(center, "center")              \
  X(code, "code") X(col, "col") X(colgroup, "colgroup") X(dd, "dd") X(del, "del")                \
  X(details, "details") X(dialog, "dialog") X(dir, "dir") X(div, "div") X(dl, "dl") X(dt, "dt")  \
  X(em, "em") X(embed, "embed") X(fieldset, "fieldset") X(figcaption, "figcaption")              \
  X(figure, "figure") X(font, "font") X(footer, "footer") X(form, "form") X(frame, "frame")      \
  X(frameset, "frameset") X(h1, "h1") X(h2, "h2") X(h3, "h3") X(h4, "h4") X(h5, "h5")            \
  X(h6, "h6") X(head, "head") X(header, "header") X(hgroup, "hgroup") X(hr, "hr")                \
  X(html, "html") X(i, "i") X(iframe, "iframe") X(image, "image") X(img, "img")                  \
  X(input, "input") X(ins, "ins") X(isindex, "isindex") X(keygen, "keygen") X(label, "label")    \
  X(li, "li") X(link, "link") X(listing, "listing") X(main, "main") X(marquee, "marquee")        \
  X(math, "math") X(menu, "menu") X(menuitem, "menuitem") X(meta, "meta") X(nav, "nav")          \
  X(nobr, "nobr") X(noembed, "noembed") X(noframes, "noframes") X(noscript, "noscript")          \
  X(object, "object") X(ol, "ol") X(optgroup, "optgroup") X(option, "option") X(p, "p")          \
  X(param, "param") X(plaintext, "plaintext") X(pre, "pre") X(rb, "rb") X(rp, "rp") X(rt, "rt")  \
  X(rtc, "rtc") X(ruby, "ruby") X(s, "s") X(script, "script") X(search, "search")                \
  X(section, "section") X(select, "select") X(small, "small") X(source, "source")                \
  X(strike, "strike") X(strong, "strong") X(style, "style") X(summary, "summary")                \
  X(svg, "svg") X(table, "table") X(tbody, "tbody") X(td, "td") X(template_, "template")         \
  X(textarea, "textarea") X(tfoot, "tfoot") X(th, "th") X(thead, "thead") X(title, "title")      \
  X(tr, "tr") X(track, "track") X(tt, "tt") X(u, "u") X(ul, "ul") X(video, "video")              \
  X(wbr, "wbr") X(xmp, "xmp")

enum class TagId : uint8_t {
#define LUMORA_HTML_TAG_ENUM(id, name) id,
  LUMORA_HTML_TAGS(LUMORA_HTML_TAG_ENUM)
#undef LUMORA_HTML_TAG_ENUM
      unknown,
};

// The id of a lower-case tag name; `unknown` for any name not above.
TagId tagIdOf(std::string_view lowerCaseName);
std::string_view tagNameOf(TagId id);  // empty for `unknown`

// The text rules' flags.
bool isBlockTag(TagId id);
bool preservesWhitespace(TagId id);

// The tree construction's "special" category.
bool isSpecial(TagId id);

}  // namespace lumora::html
