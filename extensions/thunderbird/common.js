// What the background script and the panel share: the native host's name and the pieces of
// its protocol that are pure functions (tests/addon/ runs them under Node).
"use strict";

var Lumora = (() => {
  // The native messaging host, as `lumora integrate thunderbird` installs it.
  const NATIVE_HOST = "tech.zorvel.lumora";
  // Bytes of the message being answered per messageData piece: Base64 makes 512 KiB of them,
  // under the host's limit of 1 MiB per message.
  const MESSAGE_PIECE_BYTES = 384 * 1024;
  // Subjects per colour question, so that one question stays far under 1 MiB.
  const SUBJECTS_PER_QUESTION = 500;

  // Standard Base64 of a Uint8Array, built in slices (a spread of megabytes overflows the stack).
  function base64(bytes) {
    let binary = "";
    for (let at = 0; at < bytes.length; at += 0x8000) {
      binary += String.fromCharCode.apply(null, bytes.subarray(at, at + 0x8000));
    }
    return btoa(binary);
  }

  // The messages that open a panel on `bytes` (a Uint8Array; null for a new mail).
  function openMessages(bytes, language) {
    if (bytes === null) return [{ type: "open", messageSize: null, language }];
    const messages = [{ type: "open", messageSize: bytes.length, language }];
    for (let at = 0; at < bytes.length; at += MESSAGE_PIECE_BYTES) {
      messages.push({ type: "messageData", data: base64(bytes.subarray(at, at + MESSAGE_PIECE_BYTES)) });
    }
    return messages;
  }

  // The reply as the page holds it, following the host's output messages: appended pieces, or
  // the whole text anew after a reset.
  class ReplyMirror {
    constructor() {
      this.text = "";
    }
    // Returns what the page must do: {reset, append}.
    apply(message) {
      if (message.reset) this.text = "";
      this.text += message.text;
      return { reset: message.reset, append: message.text };
    }
  }

  // A text sent in pieces (a copy's, an insertion's); add() gives the text once the last piece
  // is in, and null before.
  class PieceAssembler {
    constructor() {
      this.pieces = [];
    }
    add(message) {
      this.pieces.push(message.text);
      if (message.more) return null;
      const text = this.pieces.join("");
      this.pieces = [];
      return text;
    }
  }

  // Every address of a compose window as Thunderbird holds it ("Ann <ann@example.org>" or
  // "ann@example.org"): the host's rule looks at the end of that text. Entries that are
  // address book contacts or lists (objects, not text) are left out.
  function recipientTexts(details) {
    const out = [];
    for (const field of ["to", "cc", "bcc"]) {
      const value = details[field];
      const list = Array.isArray(value) ? value : value ? [value] : [];
      for (const entry of list) if (typeof entry === "string" && entry.trim() !== "") out.push(entry.trim());
    }
    return out;
  }

  // `items` in groups of at most `size`.
  function groups(items, size) {
    const out = [];
    for (let at = 0; at < items.length; at += size) out.push(items.slice(at, at + size));
    return out;
  }

  // ---- The options page's switches: the panel opening with a reply, and each host rule. ----

  // The switches as storage.local keeps them, and their value when never set: the rules on, as
  // the host has them; the panel opens only when asked, as a window that appears unasked on
  // every reply is not what everyone wants.
  const SWITCHES = { openOnReply: false, recipientCheck: true, extraHeader: true, subjectColour: true };

  // The switches from what storage.local gave: anything but a boolean is the default.
  function switchesFrom(stored) {
    const out = {};
    for (const [key, fallback] of Object.entries(SWITCHES)) {
      const value = stored ? stored[key] : undefined;
      out[key] = typeof value === "boolean" ? value : fallback;
    }
    return out;
  }

  // What onBeforeSend answers, given the switches, the host's verdict on the recipients (null
  // when not asked), the host's headers (name to values; null when not asked) and the custom
  // headers the mail already has. A refusal cancels; otherwise the host's headers replace any of
  // the same name (Thunderbird gives names in its own letter case, so they are compared without
  // it) and the others stay.
  function sendOutcome(switches, verdict, headers, customHeaders) {
    if (switches.recipientCheck && verdict && verdict.refusal) return { cancel: true, refusal: verdict.refusal };
    if (!switches.extraHeader || !headers) return {};
    const names = new Set(Object.keys(headers).map((name) => name.toLowerCase()));
    const kept = (customHeaders || []).filter((h) => !names.has(h.name.toLowerCase()));
    for (const [name, values] of Object.entries(headers)) {
      for (const value of values) kept.push({ name, value });
    }
    return { details: { customHeaders: kept } };
  }

  // ---- The reply into the mail being written. ----
  //
  // The reply goes after what the user has typed and before what Thunderbird put below it: the
  // quoted original (its attribution line first), or, in a mail that quotes nothing, the
  // signature. Only layout whitespace around the insertion point may change; the user's text and
  // the quote are kept as they are.

  // A plain-text line that starts an inline forward ("-------- Forwarded Message --------").
  const FORWARD_LINE = /^-{4,} .+ -{4,}\s*$/;
  // The plain-text signature separator.
  const SIGNATURE_LINE = "-- ";

  // The lines of a plain body, each with where it starts; a line's "\r" before its "\n" is not
  // part of its text.
  function plainLines(body) {
    const lines = [];
    for (let at = 0; at < body.length; ) {
      const end = body.indexOf("\n", at);
      const stop = end < 0 ? body.length : end;
      lines.push({ start: at, text: body.slice(at, stop).replace(/\r$/, "") });
      at = stop + 1;
    }
    return lines;
  }

  // Where Thunderbird's part of a plain body starts: the attribution line ("On ... wrote:") above
  // the first quoted line, that line itself when it has none, or an inline forward's separator;
  // else the signature separator; else the end.
  function plainInsertionPoint(body) {
    const lines = plainLines(body);
    let quote = lines.length;
    for (let i = 0; i < lines.length; i++) {
      const { text } = lines[i];
      if (FORWARD_LINE.test(text)) {
        quote = i;
        break;
      }
      if (text.startsWith(">")) {
        quote = i > 0 && /\S/.test(lines[i - 1].text) && /:\s*$/.test(lines[i - 1].text) ? i - 1 : i;
        break;
      }
    }
    // A signature above the quote (or in a mail without one) comes after the reply too.
    for (let i = quote - 1; i >= 0; i--) {
      if (lines[i].text === SIGNATURE_LINE) return lines[i].start;
    }
    return quote < lines.length ? lines[quote].start : body.length;
  }

  // The end of the user's text in `region`: after its last visible character and the spaces
  // that end that line, before the blank lines that follow.
  function endOfUserText(region) {
    let end = region.length;
    while (end > 0 && /\s/.test(region[end - 1])) end--;
    while (end < region.length && (region[end] === " " || region[end] === "\t")) end++;
    return end;
  }

  function lineBreaks(text) {
    let n = 0;
    for (const c of text) if (c === "\n") n++;
    return n;
  }

  // The plain body with `reply` put in: a blank line from the user's text, and one before what
  // follows. The reply takes the body's line breaks (CRLF or LF).
  function insertIntoPlainText(body, reply) {
    const eol = body.includes("\r\n") ? "\r\n" : "\n";
    const text = reply.trim().replace(/\r\n?|\n/g, eol);
    if (text === "") return body;
    const cut = plainInsertionPoint(body);
    const end = endOfUserText(body.slice(0, cut));
    const user = body.slice(0, end);
    const gap = body.slice(end, cut); // blank lines, kept when they already separate
    const tail = body.slice(cut);
    const before = user === "" ? "" : eol + eol;
    const after = tail !== "" && lineBreaks(gap) < 2 ? eol + eol : gap;
    return user + before + text + after + tail;
  }

  function escapeHtml(text) {
    return text.replace(/[&<>"']/g, (c) => ({ "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;", "'": "&#39;" })[c]);
  }

  // The reply as HTML: a <p> per paragraph (paragraphs part at blank lines), <br> at the other
  // line breaks, and spaces that HTML would fold kept as no-break spaces.
  function replyHtml(reply) {
    const text = reply.replace(/\r\n?/g, "\n").trim();
    if (text === "") return "";
    return text
      .split(/\n[ \t]*\n\s*/)
      .map((paragraph) => {
        const lines = paragraph.split("\n").map((line) => escapeHtml(line).replace(/^ | (?= )/g, "&nbsp;"));
        return `<p>${lines.join("<br>")}</p>`;
      })
      .join("");
  }

  // Thunderbird's own blocks in an HTML body: the attribution above a quote, the quote, an
  // inline forward; then the signature.
  const HTML_QUOTE =
    /<div\b[^>]*\bclass="moz-cite-prefix"[^>]*>|<blockquote\b[^>]*\btype="cite"[^>]*>|<div\b[^>]*\bclass="moz-forward-container"[^>]*>/gi;
  const HTML_SIGNATURE = /<(?:div|pre)\b[^>]*\bclass="moz-signature"[^>]*>/gi;
  // What may end the user's part without being text: line breaks, empty paragraphs (the one
  // Thunderbird leaves for the caret above a quote), white space.
  const HTML_EMPTY_END = /(?:\s|&nbsp;|<br\s*\/?>|<(p|div)(?:\s[^>]*)?>(?:\s|&nbsp;|<br\s*\/?>)*<\/\1\s*>)$/i;

  // Where the reply goes in an HTML body (an index into it).
  function htmlInsertionPoint(body) {
    const open = /<body\b[^>]*>/i.exec(body);
    const start = open ? open.index + open[0].length : 0;
    let stop = body.toLowerCase().lastIndexOf("</body>");
    if (stop < start) stop = body.length;
    const inner = body.slice(start, stop);
    HTML_QUOTE.lastIndex = 0;
    const quote = HTML_QUOTE.exec(inner);
    let cut = quote ? quote.index : inner.length;
    HTML_SIGNATURE.lastIndex = 0;
    for (let m; (m = HTML_SIGNATURE.exec(inner)) && m.index < cut; ) cut = m.index;
    // Back over the empty end of the user's part: the reply follows the last thing they wrote,
    // and what separated it from the quote still does.
    let region = inner.slice(0, cut);
    for (let m; (m = HTML_EMPTY_END.exec(region.slice(-400))); ) {
      if (m[0] === "") break;
      region = region.slice(0, region.length - m[0].length);
    }
    return start + region.length;
  }

  // The HTML body with `reply` put in as paragraphs.
  function insertIntoHtml(body, reply) {
    const html = replyHtml(reply);
    if (html === "") return body;
    const at = htmlInsertionPoint(body);
    return body.slice(0, at) + html + body.slice(at);
  }

  // ---- Where the panel window goes. ----

  // The panel's width when there is room, and the least it and the compose window are given
  // when there is not.
  const PANEL_WIDTH = 440;
  const PANEL_MIN_WIDTH = 330;
  const COMPOSE_MIN_WIDTH = 520;
  const PANEL_MIN_HEIGHT = 480;
  // What a window manager's frame may add to the bounds of a window.
  const FRAME_SLACK = 16;

  // Whether two windows' bounds overlap by more than `slack` pixels, and whether a window is
  // inside the work area but for `slack`: a window manager's frames make the bounds a window
  // gets differ by a few pixels from those it was given.
  function overlaps(a, b, slack = 0) {
    return (
      a.left + slack < b.left + b.width &&
      b.left + slack < a.left + a.width &&
      a.top + slack < b.top + b.height &&
      b.top + slack < a.top + a.height
    );
  }

  function within(rect, area, slack = 0) {
    return (
      rect.left >= area.left - slack &&
      rect.top >= area.top - slack &&
      rect.left + rect.width <= area.left + area.width + slack &&
      rect.top + rect.height <= area.top + area.height + slack
    );
  }

  // Whether an open panel must be placed anew: its compose window fills the screen or covers it,
  // or it is out of the work area (the frames' few pixels aside).
  function panelMisplaced(compose, panel, area) {
    if (compose.state === "maximized" || compose.state === "fullscreen") return true;
    return overlaps(compose, panel, FRAME_SLACK) || !within(panel, area, FRAME_SLACK);
  }

  // Where the panel goes beside `compose` (a window: left, top, width, height, state) inside the
  // work area `area` (left, top, width, height), never over it: to its right if there is room,
  // else to its left, else the compose window moves and narrows to leave room on its right
  // (from maximized, it is made normal first). Returns {panel, compose}: the panel's bounds, and
  // the compose window's new ones or null when it stays.
  function panelPlacement(compose, area, panelWidth = PANEL_WIDTH) {
    const areaRight = area.left + area.width;
    const areaBottom = area.top + area.height;
    const known = ["left", "top", "width", "height"].every((k) => Number.isFinite(compose[k]));
    if (!known) return { panel: { width: panelWidth, height: Math.min(640, area.height) }, compose: null };
    // A maximized window's frame reaches past the work area: it counts as the area.
    const filling = compose.state === "maximized" || compose.state === "fullscreen";
    const left = filling ? area.left : Math.max(compose.left, area.left);
    const top = filling ? area.top : Math.max(compose.top, area.top);
    const right = filling ? areaRight : Math.min(compose.left + compose.width, areaRight);
    const bottom = filling ? areaBottom : Math.min(compose.top + compose.height, areaBottom);
    if (right <= left || bottom <= top) {
      // On another screen than this work area: beside it, as it is.
      return { panel: { left: compose.left + compose.width, top: compose.top, width: panelWidth, height: compose.height }, compose: null };
    }
    const height = Math.min(area.height, Math.max(bottom - top, PANEL_MIN_HEIGHT));
    const panelTop = Math.min(top, areaBottom - height);
    const beside = (x, width) => ({ left: x, top: panelTop, width, height });
    if (!filling && areaRight - right >= panelWidth) return { panel: beside(right, panelWidth), compose: null };
    if (!filling && left - area.left >= panelWidth) return { panel: beside(left - panelWidth, panelWidth), compose: null };
    // No room on either side: the panel narrows first, down to its least, if the screen is too
    // narrow for both at their full widths; the compose window gives up the rest.
    let width = Math.min(panelWidth, Math.max(PANEL_MIN_WIDTH, area.width - COMPOSE_MIN_WIDTH));
    width = Math.min(width, Math.floor(area.width / 2));
    const composeWidth = Math.min(right - left, area.width - width);
    const composeLeft = Math.min(left, areaRight - width - composeWidth);
    return {
      panel: beside(composeLeft + composeWidth, width),
      compose: { left: composeLeft, top, width: composeWidth, height: bottom - top },
    };
  }

  return {
    NATIVE_HOST,
    MESSAGE_PIECE_BYTES,
    SUBJECTS_PER_QUESTION,
    base64,
    openMessages,
    ReplyMirror,
    PieceAssembler,
    recipientTexts,
    groups,
    SWITCHES,
    switchesFrom,
    sendOutcome,
    plainInsertionPoint,
    insertIntoPlainText,
    replyHtml,
    htmlInsertionPoint,
    insertIntoHtml,
    PANEL_WIDTH,
    overlaps,
    within,
    panelMisplaced,
    panelPlacement,
  };
})();

if (typeof module !== "undefined") module.exports = Lumora;
