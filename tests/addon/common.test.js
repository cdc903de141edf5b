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
  const copy = new Lumora.CopyAssembler();
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
