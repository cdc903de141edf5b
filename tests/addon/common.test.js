// The add-on's pure helpers (extensions/thunderbird/common.js), under Node's own test runner:
// node --test tests/addon/
"use strict";
const test = require("node:test");
const assert = require("node:assert");
const Lumora = require("../../extensions/thunderbird/common.js");

test("the message goes in Base64 pieces that decode to its bytes, each under the host's limit", () => {
  for (const size of [0, 1, 65535, 65536 * 3 + 7, Lumora.MESSAGE_PIECE_BYTES * 2 + 1]) {
    const bytes = new Uint8Array(size).map((_, i) => (i * 31 + 7) & 0xff);
    const messages = Lumora.openMessages(bytes, "en-US");
    assert.deepStrictEqual(messages[0], { type: "open", messageSize: size, language: "en-US" });
    const pieces = messages.slice(1);
    assert.strictEqual(pieces.length, Math.ceil(size / Lumora.MESSAGE_PIECE_BYTES));
    const joined = Buffer.concat(pieces.map((m) => Buffer.from(m.data, "base64")));
    assert.ok(joined.equals(Buffer.from(bytes)), `size ${size}`);
    for (const m of pieces) assert.ok(JSON.stringify(m).length + 4 <= 1024 * 1024);
  }
  assert.deepStrictEqual(Lumora.openMessages(null, "zh-CN"), [
    { type: "open", messageSize: null, language: "zh-CN" },
  ]);
});

test("the page's reply follows appended pieces and starts anew at a reset", () => {
  const mirror = new Lumora.ReplyMirror();
  const steps = [
    [{ reset: false, text: "Dear " }, "Dear "],
    [{ reset: false, text: "Ann," }, "Dear Ann,"],
    [{ reset: true, text: "Hello" }, "Hello"],
    [{ reset: true, text: "" }, ""],
  ];
  for (const [message, expected] of steps) {
    mirror.apply(message);
    assert.strictEqual(mirror.text, expected);
  }
});

test("a copy's pieces come together only at the last one", () => {
  const copy = new Lumora.PieceAssembler();
  assert.strictEqual(copy.add({ text: "ab", more: true }), null);
  assert.strictEqual(copy.add({ text: "c", more: false }), "abc");
  assert.strictEqual(copy.add({ text: "", more: false }), "");
});

test("recipients are the texts of to, cc and bcc, contacts left out", () => {
  const details = {
    to: ["Ann <ann@example.org>", "  bob@example.com "],
    cc: "carol@example.org",
    bcc: [{ id: "contact-1", type: "contact" }, ""],
  };
  assert.deepStrictEqual(Lumora.recipientTexts(details), [
    "Ann <ann@example.org>",
    "bob@example.com",
    "carol@example.org",
  ]);
  assert.deepStrictEqual(Lumora.recipientTexts({}), []);
});

// ---- The reply into the mail being written, on bodies as Thunderbird 153 gives them. ----

const REPLY = "Dear Ann,\n\nThank you for the list.\nI will start with the first one.";

// A plain-text reply with the caret on top: two empty lines, the attribution, the quote, then the
// signature (placed below the quote).
const PLAIN_QUOTE =
  "On 11/23/26 09:00, Ann Example wrote:\n> Here is my answer.\n> \n" +
  ">     Could you send me three books for the spring?\n> \n-- \nMe & *myself*\n";
const PLAIN_REPLY = "\n\n" + PLAIN_QUOTE;

// Splits `result` at the reply: what comes before and after it must be what the test expects.
function around(result, reply) {
  const at = result.indexOf(reply);
  assert.ok(at >= 0, `the reply is in ${JSON.stringify(result)}`);
  return [result.slice(0, at), result.slice(at + reply.length)];
}

test("plain text: the reply goes after the user's text and before the attribution or signature", () => {
  // Nothing typed yet: the reply starts the mail, a blank line above the attribution.
  assert.strictEqual(Lumora.insertIntoPlainText(PLAIN_REPLY, REPLY), REPLY + "\n\n" + PLAIN_QUOTE);

  // Typed text stays as it is, down to the spaces ending its last line; the blank lines that
  // already part it from the quote stay too.
  const typed = "Hi Ann,\n\nMy own words first.  ";
  const [before, after] = around(Lumora.insertIntoPlainText(typed + "\n\n\n" + PLAIN_QUOTE, REPLY), REPLY);
  assert.strictEqual(before, typed + "\n\n");
  assert.strictEqual(after, "\n\n\n" + PLAIN_QUOTE);

  // Typed text right above the attribution: a blank line is made on both sides.
  assert.strictEqual(
    Lumora.insertIntoPlainText("Hi Ann,\n" + PLAIN_QUOTE, REPLY),
    "Hi Ann,\n\n" + REPLY + "\n\n" + PLAIN_QUOTE
  );

  // A quote without an attribution line above it.
  assert.strictEqual(Lumora.insertIntoPlainText("Hi\n\n> quoted\n", "R"), "Hi\n\nR\n\n> quoted\n");
  // A line ending in a colon directly above the quote is its attribution, even in another language.
  assert.strictEqual(
    Lumora.insertIntoPlainText("Am 23.11.26 schrieb Ann:\n> Hallo\n", "R"),
    "R\n\nAm 23.11.26 schrieb Ann:\n> Hallo\n"
  );

  // A new mail: before the signature, or at the end when there is none.
  assert.strictEqual(Lumora.insertIntoPlainText("\n-- \nMe\n", "R"), "R\n\n-- \nMe\n");
  assert.strictEqual(Lumora.insertIntoPlainText("Hi\n-- \nMe\n", "R"), "Hi\n\nR\n\n-- \nMe\n");
  assert.strictEqual(Lumora.insertIntoPlainText("", "R"), "R");
  assert.strictEqual(Lumora.insertIntoPlainText("Hi", "R"), "Hi\n\nR");
  // "--" without its space is text, not a signature.
  assert.strictEqual(Lumora.insertIntoPlainText("a\n--\nb", "R"), "a\n--\nb\n\nR");

  // A signature above the quote (top-posting with the signature under the reply) stays under it.
  const signedAbove = "Hi\n\n-- \nMe\n\n" + PLAIN_QUOTE;
  assert.strictEqual(Lumora.insertIntoPlainText(signedAbove, "R"), "Hi\n\nR\n\n-- \nMe\n\n" + PLAIN_QUOTE);

  // An inline forward: above its separator line.
  const forward = "\n\n\n-------- Forwarded Message --------\nSubject: \tHello\n\n\nText\n";
  assert.strictEqual(Lumora.insertIntoPlainText(forward, "R"), "R\n\n\n-------- Forwarded Message --------\nSubject: \tHello\n\n\nText\n");

  // A second reply goes after the first: it is now the user's text.
  const once = Lumora.insertIntoPlainText(PLAIN_REPLY, "First");
  assert.strictEqual(Lumora.insertIntoPlainText(once, "Second"), "First\n\nSecond\n\n" + PLAIN_QUOTE);

  // A reply of blank space changes nothing; the reply's own outer blank lines are dropped.
  assert.strictEqual(Lumora.insertIntoPlainText(PLAIN_REPLY, " \n\n "), PLAIN_REPLY);
  assert.strictEqual(Lumora.insertIntoPlainText("", "\n\nR\n\n"), "R");
});

test("plain text: the reply takes the body's line breaks, CRLF or LF, and the rest keeps its own", () => {
  const crlf = PLAIN_REPLY.replace(/\n/g, "\r\n");
  const typed = "Hi Ann,\r\n";
  const result = Lumora.insertIntoPlainText(typed + crlf, "One\nTwo\r\nThree\rFour\n\nFive");
  const [before, after] = around(result, "One\r\nTwo\r\nThree\r\nFour\r\n\r\nFive");
  assert.strictEqual(before, "Hi Ann,\r\n\r\n");
  assert.strictEqual(after, "\r\n" + crlf); // the existing blank line is kept, and one more made
  assert.ok(!/[^\r]\n/.test(result), "no bare LF in a CRLF body");
  // The quote is found with its CRLF line ends.
  assert.strictEqual(Lumora.plainInsertionPoint(crlf), 4);

  const lf = Lumora.insertIntoPlainText(PLAIN_REPLY, "One\r\nTwo");
  assert.strictEqual(lf, "One\nTwo\n\n" + PLAIN_QUOTE);
});

// An HTML reply with the caret on top, as Thunderbird 153 sets it up, and its signature below
// the quote.
const HTML_HEAD =
  '<!DOCTYPE html>\n<html><head><meta http-equiv="Content-Type" content="text/html; charset=UTF-8"></head><body>';
const HTML_QUOTE =
  '<div class="moz-cite-prefix">On 11/23/26 09:00, Ann Example wrote:<br></div>' +
  '<blockquote type="cite" cite="mid:reading-list@example.org">\n<p>Here is my answer.</p>\n' +
  "<blockquote>Could you send me three books for the spring?</blockquote>\n</blockquote>" +
  '<div class="moz-signature">-- <br>Me &amp; <b>myself</b></div></body></html>';
const REPLY_HTML = "<p>Dear Ann,</p><p>Thank you for the list.<br>I will start with the first one.</p>";

test("HTML: the reply's paragraphs go after the user's text and before the cite prefix or signature", () => {
  // Nothing typed: at the top, and the caret's empty paragraph still parts it from the quote.
  assert.strictEqual(
    Lumora.insertIntoHtml(HTML_HEAD + "<p><br></p>" + HTML_QUOTE, REPLY),
    HTML_HEAD + REPLY_HTML + "<p><br></p>" + HTML_QUOTE
  );

  // Typed paragraphs stay, and the reply follows the last one that holds text.
  const typed = "<p>Hi Ann,</p><p><br></p><p>My own words.</p>";
  assert.strictEqual(
    Lumora.insertIntoHtml(HTML_HEAD + typed + "<p><br></p><br>\n" + HTML_QUOTE, REPLY),
    HTML_HEAD + typed + REPLY_HTML + "<p><br></p><br>\n" + HTML_QUOTE
  );
  // Typed without paragraphs (line breaks only).
  assert.strictEqual(
    Lumora.insertIntoHtml(HTML_HEAD + "Hi Ann,<br><br>" + HTML_QUOTE, "R"),
    HTML_HEAD + "Hi Ann,<p>R</p><br><br>" + HTML_QUOTE
  );

  // A quote without Thunderbird's cite prefix: before the quote itself.
  const bare = '<blockquote type="cite"><p>Old</p></blockquote></body></html>';
  assert.strictEqual(Lumora.insertIntoHtml(HTML_HEAD + "<p>Hi</p>" + bare, "R"), HTML_HEAD + "<p>Hi</p><p>R</p>" + bare);

  // A signature above the quote, as a <pre> when the signature is plain text.
  const signedAbove = '<p><br></p><pre class="moz-signature" cols="72">Me</pre>' + HTML_QUOTE;
  assert.strictEqual(Lumora.insertIntoHtml(HTML_HEAD + signedAbove, "R"), HTML_HEAD + "<p>R</p>" + signedAbove);

  // A new mail: before its signature, or at the end of the body when it has none.
  const newMail = '<p><br></p><div class="moz-signature">-- <br>Me</div></body></html>';
  assert.strictEqual(Lumora.insertIntoHtml(HTML_HEAD + newMail, "R"), HTML_HEAD + "<p>R</p>" + newMail);
  assert.strictEqual(
    Lumora.insertIntoHtml(HTML_HEAD + "<p>Hi</p></body></html>", "R"),
    HTML_HEAD + "<p>Hi</p><p>R</p></body></html>"
  );

  // An inline forward.
  const forward = '<p><br></p><div class="moz-forward-container"><br><br>-------- Forwarded Message --------</div></body></html>';
  assert.strictEqual(Lumora.insertIntoHtml(HTML_HEAD + forward, "R"), HTML_HEAD + "<p>R</p>" + forward);

  // Thunderbird's marks are looked for in the body only, and a second reply follows the first.
  const once = Lumora.insertIntoHtml(HTML_HEAD + "<p><br></p>" + HTML_QUOTE, "First");
  assert.strictEqual(
    Lumora.insertIntoHtml(once, "Second"),
    HTML_HEAD + "<p>First</p><p>Second</p><p><br></p>" + HTML_QUOTE
  );
  assert.strictEqual(Lumora.insertIntoHtml(HTML_HEAD + HTML_QUOTE, "   "), HTML_HEAD + HTML_QUOTE);
});

test("HTML: the reply is escaped, in paragraphs at blank lines, with <br> at single line breaks", () => {
  assert.strictEqual(
    Lumora.replyHtml("Fish & chips <b>not</b> \"bold\", 'x'\r\nnext line\r\n \r\n\r\nNew paragraph\n"),
    "<p>Fish &amp; chips &lt;b&gt;not&lt;/b&gt; &quot;bold&quot;, &#39;x&#39;<br>next line</p><p>New paragraph</p>"
  );
  // Spaces that HTML would fold into one, or drop at a line's start, are kept.
  assert.strictEqual(Lumora.replyHtml("a   b\n  c"), "<p>a&nbsp;&nbsp; b<br>&nbsp; c</p>");
  assert.strictEqual(Lumora.replyHtml("\n\n"), "");
  // Text that looks like Thunderbird's marks is the reply's own, and does not move the next one.
  const sly = '<div class="moz-cite-prefix">';
  const once = Lumora.insertIntoHtml(HTML_HEAD + "<p><br></p>" + HTML_QUOTE, sly);
  assert.strictEqual(Lumora.htmlInsertionPoint(once), HTML_HEAD.length + Lumora.replyHtml(sly).length);
});

// ---- The panel window beside its compose window. ----

// The placement keeps both windows in the work area and apart.
function assertApart(plan, compose, area) {
  const composeAfter = plan.compose || compose;
  assert.ok(Lumora.within(plan.panel, area), `panel ${JSON.stringify(plan.panel)} in ${JSON.stringify(area)}`);
  if (plan.compose) assert.ok(Lumora.within(plan.compose, area), `compose ${JSON.stringify(plan.compose)}`);
  assert.ok(!Lumora.overlaps(plan.panel, composeAfter), `${JSON.stringify(plan)} apart`);
}

test("the panel goes right of the compose window, else left, else the compose window makes room", () => {
  const full = { left: 0, top: 0, width: 1920, height: 1080 };

  // Room on both sides: on the right, as tall as the compose window, which stays.
  let compose = { left: 500, top: 100, width: 900, height: 700, state: "normal" };
  let plan = Lumora.panelPlacement(compose, full);
  assert.deepStrictEqual(plan, { panel: { left: 1400, top: 100, width: 440, height: 700 }, compose: null });

  // At the right edge: on the left.
  compose = { left: 1020, top: 0, width: 900, height: 1080, state: "normal" };
  plan = Lumora.panelPlacement(compose, full);
  assert.deepStrictEqual(plan, { panel: { left: 580, top: 0, width: 440, height: 1080 }, compose: null });

  // Wide but with room on neither side: the compose window moves left, as wide as it was.
  compose = { left: 300, top: 50, width: 1300, height: 900, state: "normal" };
  plan = Lumora.panelPlacement(compose, full);
  assertApart(plan, compose, full);
  assert.deepStrictEqual(plan.compose, { left: 180, top: 50, width: 1300, height: 900 });
  assert.strictEqual(plan.panel.left, 1480);

  // Maximized (its frame reaches past the screen): the compose window gives up the panel's width.
  compose = { left: -5, top: -5, width: 1930, height: 1090, state: "maximized" };
  plan = Lumora.panelPlacement(compose, full);
  assertApart(plan, compose, full);
  assert.deepStrictEqual(plan, {
    panel: { left: 1480, top: 0, width: 440, height: 1080 },
    compose: { left: 0, top: 0, width: 1480, height: 1080 },
  });
  // Maximized is maximized whatever bounds are reported (they may be those it had before): it
  // is made normal, or it would stay over the panel.
  plan = Lumora.panelPlacement({ left: 100, top: 100, width: 800, height: 600, state: "maximized" }, full);
  assert.deepStrictEqual(plan.compose, { left: 0, top: 0, width: 1480, height: 1080 });
  // Sized to the whole screen without being maximized (no window manager to maximize it).
  plan = Lumora.panelPlacement({ ...full, state: "normal" }, full);
  assert.deepStrictEqual(plan.compose, { left: 0, top: 0, width: 1480, height: 1080 });

  // A short compose window gets a panel tall enough to use.
  plan = Lumora.panelPlacement({ left: 0, top: 900, width: 800, height: 150, state: "normal" }, full);
  assert.deepStrictEqual(plan.panel, { left: 800, top: 600, width: 440, height: 480 });
});

test("the placement stays in a work area that does not start at 0, and on a narrow screen", () => {
  // A top bar of 26 pixels and a dock of 64 on the left; the maximized window's frame overhangs.
  const area = { left: 64, top: 26, width: 1856, height: 1054 };
  let compose = { left: 59, top: 21, width: 1866, height: 1064, state: "maximized" };
  let plan = Lumora.panelPlacement(compose, area);
  assertApart(plan, compose, area);
  assert.deepStrictEqual(plan.compose, { left: 64, top: 26, width: 1416, height: 1054 });
  // A compose window up against the dock: the panel goes right, not over the dock.
  compose = { left: 64, top: 26, width: 1000, height: 700, state: "normal" };
  plan = Lumora.panelPlacement(compose, area);
  assert.deepStrictEqual(plan, { panel: { left: 1064, top: 26, width: 440, height: 700 }, compose: null });
  // A second screen to the right of this one: the work area starts at 1920.
  const second = { left: 1920, top: 0, width: 1280, height: 1024 };
  compose = { left: 2400, top: 0, width: 800, height: 1024, state: "normal" };
  plan = Lumora.panelPlacement(compose, second);
  assert.deepStrictEqual(plan, { panel: { left: 1960, top: 0, width: 440, height: 1024 }, compose: null });

  // Too narrow for both at their widths: the panel narrows to its least, the compose window to
  // the rest, and neither covers the other.
  const narrow = { left: 0, top: 0, width: 800, height: 600 };
  compose = { left: 0, top: 0, width: 800, height: 600, state: "maximized" };
  plan = Lumora.panelPlacement(compose, narrow);
  assertApart(plan, compose, narrow);
  assert.deepStrictEqual(plan, {
    panel: { left: 470, top: 0, width: 330, height: 600 },
    compose: { left: 0, top: 0, width: 470, height: 600 },
  });
  // Narrower still: each gets half.
  plan = Lumora.panelPlacement({ ...compose, width: 600 }, { ...narrow, width: 600 });
  assert.deepStrictEqual([plan.compose.width, plan.panel.width], [300, 300]);

  // A panel the user made wider keeps its width where it fits.
  plan = Lumora.panelPlacement({ left: 0, top: 0, width: 1000, height: 800, state: "normal" }, { left: 0, top: 0, width: 1920, height: 1080 }, 700);
  assert.deepStrictEqual(plan.panel, { left: 1000, top: 0, width: 700, height: 800 });
});

// ---- The rules' switches. ----

test("the rules are on and the panel waits to be asked unless switched, and each rule's switch holds back only it", () => {
  assert.deepStrictEqual(Lumora.switchesFrom({}), {
    openOnReply: false,
    recipientCheck: true,
    extraHeader: true,
    subjectColour: true,
  });
  assert.deepStrictEqual(Lumora.switchesFrom({ openOnReply: "yes", extraHeader: false, subjectColour: "off", other: false }), {
    openOnReply: false,
    recipientCheck: true,
    extraHeader: false,
    subjectColour: true,
  });

  const on = Lumora.switchesFrom({});
  const refused = { refusal: "example.com is not a valid recipient domain" };
  const headers = { "X-CustomHeader": ["This ia a custom header."] };
  const existing = [
    { name: "X-Customheader", value: "left from an earlier try" },
    { name: "X-Other", value: "kept" },
  ];
  assert.deepStrictEqual(Lumora.sendOutcome(on, refused, headers, existing), {
    cancel: true,
    refusal: refused.refusal,
  });
  // The header replaces one of the same name in any letter case; the others stay.
  assert.deepStrictEqual(Lumora.sendOutcome(on, { refusal: null }, headers, existing), {
    details: {
      customHeaders: [
        { name: "X-Other", value: "kept" },
        { name: "X-CustomHeader", value: "This ia a custom header." },
      ],
    },
  });
  // Recipient check off: a refusal the host would make does not stop the mail.
  const noCheck = { ...on, recipientCheck: false };
  assert.strictEqual(Lumora.sendOutcome(noCheck, refused, headers, []).cancel, undefined);
  assert.deepStrictEqual(Lumora.sendOutcome(noCheck, null, headers, []).details.customHeaders, [
    { name: "X-CustomHeader", value: "This ia a custom header." },
  ]);
  // Extra header off: the mail goes as it is, the recipient check still applies.
  const noHeader = { ...on, extraHeader: false };
  assert.deepStrictEqual(Lumora.sendOutcome(noHeader, { refusal: null }, headers, existing), {});
  assert.strictEqual(Lumora.sendOutcome(noHeader, refused, null, []).cancel, true);
});

test("an open panel is placed anew only when covered or off the work area, frames aside", () => {
  const area = { left: 0, top: 26, width: 1400, height: 874 };
  const panel = { left: 950, top: 21, width: 450, height: 874 }; // a frame's 5 pixels above the area
  const compose = { left: 0, top: 26, width: 955, height: 874, state: "normal" }; // and 5 into the panel
  assert.strictEqual(Lumora.panelMisplaced(compose, panel, area), false);
  // Maximized since, moved over the panel, or the panel dragged off the screen.
  assert.strictEqual(Lumora.panelMisplaced({ ...compose, state: "maximized" }, panel, area), true);
  assert.strictEqual(Lumora.panelMisplaced({ ...compose, width: 1000 }, panel, area), true);
  assert.strictEqual(Lumora.panelMisplaced(compose, { ...panel, left: 1200 }, area), true);
  assert.strictEqual(Lumora.panelMisplaced(compose, { ...panel, top: -100 }, area), true);
  // A window below the panel does not cover it.
  assert.strictEqual(Lumora.panelMisplaced({ ...compose, left: 950, top: 900 }, panel, area), false);
});
