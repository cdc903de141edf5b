// The readable text of an HTML body, as lines: paragraphs, line breaks, list items and table
// rows on lines of their own, whitespace collapsed as a browser shows it (kept in `pre`),
// character references decoded by the parse, `head`, `script`, `style` and the like left out,
// link text kept. Each line knows how many `blockquote` elements it stands in, and carries the
// marks that mail programs put in their markup: the attribution before a quotation (Thunderbird's
// "moz-cite-prefix", Gmail's "gmail_attr"), the start of the earlier thread (Outlook's
// "divRplyFwdMsg" and "appendonsend", Yahoo's "yahoo_quoted"), a horizontal rule, and the
// signature ("moz-signature", "gmail_signature").
//
// The walk over the tree keeps its own small stack: nothing recurses, and the cost is linear in
// the size of the tree.
#pragma once

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/reading/TextLines.h"

namespace lumora::reading {

void addHtmlLines(const html::Document& document, TextLines& out);

}  // namespace lumora::reading
