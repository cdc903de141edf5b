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

  // A copy's text, sent in pieces; complete() gives the text once the last piece is in.
  class CopyAssembler {
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

  return {
    NATIVE_HOST,
    MESSAGE_PIECE_BYTES,
    SUBJECTS_PER_QUESTION,
    base64,
    openMessages,
    ReplyMirror,
    CopyAssembler,
    recipientTexts,
    groups,
  };
})();

if (typeof module !== "undefined") module.exports = Lumora;
