// The panel page: draws the state that the native host sends, and sends back which control
// was used. It decides nothing itself; the reply arrives as pieces appended to what it shows.
"use strict";
/* global Lumora, messenger */

// The panel's named symbols, as characters.
const SYMBOLS = {
  "chevron.left": "‹",
  "wand.and.stars": "✨",
  "rectangle.portrait.on.rectangle.portrait": "⧉",
  stop: "■",
  "arrow.clockwise": "↻",
  "text.insert": "⤓",
};
// Typing is sent to the host once it pauses this long (and always before Generate).
const INSTRUCTION_PAUSE_MS = 250;

const $ = (id) => document.getElementById(id);
const tabId = Number(new URLSearchParams(location.search).get("tab"));
const mirror = new Lumora.ReplyMirror();
const copyText = new Lumora.PieceAssembler();
const insertText = new Lumora.PieceAssembler();
const textNode = document.createTextNode("");
$("text").appendChild(textNode);

let port = null;
let state = null;
let hostError = null; // a message the host could not take, or the host itself missing
let instructionKnown = null; // the instruction as the host last had it
let instructionTimer = null;
let followEnd = true; // the reply view stays at the end of a growing reply until scrolled up
let bounces = 0;
let insertions = 0;

function send(message) {
  if (port) port.postMessage(message);
}

function operation(name, value) {
  const message = { type: "operation", name };
  if (value !== undefined) message.value = value;
  send(message);
}

function flushInstruction() {
  if (instructionTimer === null) return;
  clearTimeout(instructionTimer);
  instructionTimer = null;
  instructionKnown = $("instruction").value;
  operation("setInstruction", instructionKnown);
}

// The message being answered, as bytes; null for a new mail or one Thunderbird cannot give.
async function rawMessage() {
  const details = await messenger.compose.getComposeDetails(tabId);
  if (!details.relatedMessageId || !["reply", "forward", "redirect"].includes(details.type)) return null;
  const file = await messenger.messages.getRaw(details.relatedMessageId, { data_format: "File" });
  return new Uint8Array(await file.arrayBuffer());
}

// A refused send of this compose window, shown until its recipients change.
function showRefusal(text) {
  $("refusal").textContent = text || "";
  $("refusal").hidden = !text;
}

function showErrors() {
  const lines = [state && state.error, hostError].filter(Boolean);
  $("error").textContent = lines.join("\n");
  $("error").hidden = lines.length === 0;
}

function fillPicker(select, picker) {
  const key = JSON.stringify(picker.entries);
  if (select.dataset.entries !== key) {
    select.dataset.entries = key;
    select.replaceChildren(
      ...picker.entries.map((entry) => {
        const option = document.createElement("option");
        if (entry.divider) {
          option.disabled = true;
          option.textContent = "──────────";
        } else {
          option.value = entry.value;
          option.textContent = entry.label;
        }
        return option;
      })
    );
  }
  const index = picker.entries.findIndex((e) => !e.divider && e.value === picker.selection);
  select.selectedIndex = index;
}

// What the model will read of the message, and the control that switches to the other reading.
// The control's label is what a press does, so it carries no aria-pressed: with the whole
// message on, a screen reader would say "Read only the quoted passages, pressed", the opposite.
// The line, which describes the control and is announced as it changes, says which reading is on.
function showReading(reading) {
  $("reading").hidden = !reading; // a host from before the choice sends none
  if (!reading) return;
  $("readingLine").textContent = reading.line;
  $("readingToggle").textContent = reading.toggle.label;
  $("readingToggle").dataset.operation = reading.toggle.operation;
}

function render(next) {
  const previous = state;
  state = next;
  const back = next.header.operation === "leaveResult";
  $("back").hidden = !back;
  $("wand").hidden = back;
  $("wand").textContent = SYMBOLS[next.header.symbol] || "";
  $("title").textContent = next.header.title;
  document.title = next.header.title;
  showErrors();

  const input = next.page === "input";
  $("input").hidden = !input;
  $("result").hidden = input;
  if (input) {
    if (next.instruction !== instructionKnown && instructionTimer === null) {
      $("instruction").value = next.instruction;
      instructionKnown = next.instruction;
    }
    fillPicker($("conversation"), next.conversationPicker);
    fillPicker($("model"), next.modelPicker);
    $("generate").textContent = next.generate.label;
    showReading(next.reading);
    if (!previous || previous.page !== "input") $("instruction").focus();
  } else {
    // The buttons the host lists, by what they do: Insert comes and goes (not while the reply
    // is being written), and the last one is Stop or Regenerate.
    const find = (...operations) => next.buttons.find((b) => operations.includes(b.operation));
    showButton("copy", find("copyOutput"));
    showButton("insert", find("insertOutput"));
    showButton("second", find("stopGeneration", "startGeneration"));
    if (!previous || previous.page !== "result") followEnd = true;
  }
  $("copying").hidden = !next.copying;
  $("inserting").hidden = !next.inserting;
  if (next.copyBounces !== bounces) {
    bounces = next.copyBounces;
    bounce($("copySymbol"));
  }
  if ((next.insertions || 0) !== insertions) {
    insertions = next.insertions || 0;
    bounce($("insertSymbol"));
  }
}

function showButton(id, button) {
  $(id).hidden = !button;
  if (!button) return;
  $(`${id}Label`).textContent = button.label;
  $(`${id}Symbol`).textContent = SYMBOLS[button.symbol] || "";
  $(id).dataset.operation = button.operation;
}

function bounce(symbol) {
  symbol.classList.remove("bounce");
  void symbol.offsetWidth; // restarts the animation
  symbol.classList.add("bounce");
}

function showOutput(message) {
  mirror.apply(message);
  if (message.reset) textNode.data = message.text;
  else textNode.appendData(message.text);
  if (followEnd) $("output").scrollTop = $("output").scrollHeight;
}

async function copyToClipboard(text) {
  try {
    await navigator.clipboard.writeText(text);
    send({ type: "copied", error: null });
  } catch (e) {
    send({ type: "copied", error: String((e && e.message) || e) });
  }
}

// The reply into this panel's compose window, after what the user wrote there and above the
// quote; the host waits for the answer.
async function insertIntoDraft(text) {
  let error = null;
  try {
    const details = await messenger.compose.getComposeDetails(tabId).catch(() => {
      throw new Error("the mail it was written for is no longer open");
    });
    if (details.isPlainText) {
      await messenger.compose.setComposeDetails(tabId, {
        plainTextBody: Lumora.insertIntoPlainText(details.plainTextBody || "", text),
      });
    } else {
      await messenger.compose.setComposeDetails(tabId, { body: Lumora.insertIntoHtml(details.body || "", text) });
    }
  } catch (e) {
    error = String((e && e.message) || e);
  }
  send({ type: "inserted", error });
  // Thunderbird may raise the compose window as its body changes: the panel stays in view.
  messenger.runtime.sendMessage({ type: "keepBeside", tabId }).catch(() => {});
}

function receive(message) {
  switch (message.type) {
    case "state":
      return render(message);
    case "output":
      return showOutput(message);
    case "copy": {
      const text = copyText.add(message);
      if (text !== null) copyToClipboard(text);
      return undefined;
    }
    case "insert": {
      const text = insertText.add(message);
      if (text !== null) insertIntoDraft(text);
      return undefined;
    }
    case "error":
      hostError = message.message;
      return showErrors();
    default:
      return undefined;
  }
}

function connect() {
  port = messenger.runtime.connectNative(Lumora.NATIVE_HOST);
  port.onMessage.addListener(receive);
  port.onDisconnect.addListener((p) => {
    port = null;
    const why = p.error ? p.error.message : "it ended";
    hostError =
      `Lumora's native host is not running (${why}). Install it with ` +
      "'lumora integrate thunderbird', then open the panel again.";
    showErrors();
  });
}

async function start() {
  connect();
  messenger.windows
    .getCurrent()
    .then((w) => messenger.runtime.sendMessage({ type: "panelOpened", tabId, windowId: w.id }))
    .catch(() => {});
  messenger.runtime
    .sendMessage({ type: "refusalOf", tabId })
    .then(showRefusal)
    .catch(() => {});
  let bytes = null;
  try {
    bytes = await rawMessage();
  } catch (e) {
    // As for a message without its bytes: the instruction is sent on its own.
    console.warn("Lumora: the message being answered could not be read:", e);
  }
  for (const message of Lumora.openMessages(bytes, messenger.i18n.getUILanguage())) send(message);
}

$("back").addEventListener("click", () => operation("leaveResult"));
$("instruction").addEventListener("input", () => {
  clearTimeout(instructionTimer);
  instructionTimer = setTimeout(flushInstruction, INSTRUCTION_PAUSE_MS);
});
$("instruction").addEventListener("keydown", (event) => {
  if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) {
    event.preventDefault();
    $("generate").click();
  }
});
$("conversation").addEventListener("change", (event) => {
  flushInstruction();
  operation("selectConversation", event.target.value);
});
$("model").addEventListener("change", (event) => {
  flushInstruction();
  operation(state.modelPicker.operation, event.target.value);
});
$("generate").addEventListener("click", () => {
  flushInstruction();
  operation("startGeneration");
});
$("readingToggle").addEventListener("click", (event) => operation(event.currentTarget.dataset.operation));
for (const id of ["copy", "insert", "second"]) {
  $(id).addEventListener("click", (event) => operation(event.currentTarget.dataset.operation));
}
$("output").addEventListener("scroll", () => {
  const view = $("output");
  followEnd = view.scrollTop + view.clientHeight >= view.scrollHeight - 4;
});
document.addEventListener("keydown", (event) => {
  if (event.key === "Escape" && state && state.page === "result") operation("leaveResult");
});

// The background's word on this compose window's recipients.
messenger.runtime.onMessage.addListener((message) => {
  if (!message || message.tabId !== tabId) return;
  if (message.type === "annotations") {
    $("annotations").textContent = message.lines.join("\n");
    $("annotations").hidden = message.lines.length === 0;
  } else if (message.type === "refusal") {
    showRefusal(message.text);
  }
});

start();
