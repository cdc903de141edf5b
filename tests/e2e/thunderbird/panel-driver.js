// The panel's half of the end-to-end driver (test build only): presses the panel's own
// buttons, as a user would, and times what the page shows. What it does depends on the role the
// background driver gave this panel's compose tab.
"use strict";
/* global messenger, state, textNode, port, $, tabId */

(async () => {
  const config = await messenger.runtime.sendMessage({ type: "e2e-mode", tabId });
  if (!config) return;
  const role = config.role;
  // Where the driver is, for the harness's log when something hangs.
  const progress = (stage) =>
    fetch(config.report, { method: "POST", body: JSON.stringify({ step: "panel-progress", role, stage }) });
  progress("loaded");
  const until = async (test, seconds = 60) => {
    const end = Date.now() + seconds * 1000;
    while (Date.now() < end) {
      if (test()) return;
      await new Promise((r) => setTimeout(r, 2));
    }
    throw new Error("timed out");
  };
  // Whether an element takes up room on the page: hidden ones have no boxes.
  const shown = (id) => $(id).getClientRects().length > 0;
  // The reading line and its control as the page shows them.
  const reading = () => ({
    line: $("readingLine").textContent,
    control: $("readingToggle").textContent,
    shown: shown("reading"),
  });
  const finished = () => state && state.page === "result" && state.header.title !== "Writing...";
  // Insert, as a user presses it once the reply is finished.
  const insert = async () => {
    const before = state.insertions;
    $("insert").click();
    await until(() => (state.insertions > before || state.error) && !state.inserting, 40);
    return { insertions: state.insertions - before, error: state.error };
  };
  const done = async (result) => {
    await fetch(config.report, { method: "POST", body: JSON.stringify({ step: `panel-${role}`, ...result }) });
    await messenger.runtime.sendMessage({ type: "e2e-panel", role, ...result }).catch((e) => progress(`not told: ${e}`));
  };
  const failure = (e) => `${e}\n${e && e.stack}\nstate: ${JSON.stringify(state)}\nerror line: ${$("error").textContent}`;

  if (role === "reopened") {
    // The panel opened again after the reading was switched: it only says what it shows.
    const again = {};
    try {
      await until(() => state && state.page === "input", 30);
      again.reading = reading();
    } catch (e) {
      again.failure = failure(e);
    }
    await done(again);
    window.close();
    return;
  }
  if (role === "refused") {
    // Opened by a refused send: the refusal is there without anyone asking.
    const seen = {};
    try {
      await until(() => shown("refusal"), 20);
      seen.refusal = $("refusal").textContent;
    } catch (e) {
      seen.failure = failure(e);
    }
    await done(seen);
    return;
  }
  if (role === "html") {
    // Generate and Insert into an HTML reply; the panel stays open beside it.
    const inserted = {};
    try {
      await until(() => state && state.page === "input", 30);
      $("generate").click();
      await until(() => finished() && shown("insert"), 30);
      Object.assign(inserted, await insert());
    } catch (e) {
      inserted.failure = failure(e);
    }
    await done(inserted);
    return;
  }

  const result = { runs: [] };
  try {
    // Every piece of reply from the host, counted and timed after the page has shown it (the
    // page's own listener runs first).
    let outputs = 0;
    let firstShown = null;
    let writingSeen = false;
    result.insertWhileWriting = false;
    port.onMessage.addListener((m) => {
      if (m.type === "state" && m.header.title === "Writing...") {
        writingSeen = true;
        if (shown("insert")) result.insertWhileWriting = true;
      }
      if (m.type !== "output") return;
      outputs += 1;
      if (firstShown === null) firstShown = performance.now();
    });
    await until(() => state && state.page === "input", 30);
    progress("input page");
    result.readingAtStart = reading();
    result.instruction = $("instruction").value;
    result.instructionFocused = document.activeElement === $("instruction");
    result.model = $("model").value;
    // The header's symbols: the wand on the input page, the back control on the result page.
    result.headerOnInput = { back: shown("back"), wand: shown("wand") };

    // Generate, then Regenerate for every further run: the harness's server answers them in
    // turn with a trickle and a burst, `rounds` times.
    const buttons = ["generate"];
    while (buttons.length < 2 * config.rounds) buttons.push("second");
    for (const button of buttons) {
      outputs = 0;
      firstShown = null;
      writingSeen = false;
      const started = performance.now();
      $(button).click();
      await until(() => writingSeen && finished());
      progress(`${button} done`);
      if (button === "generate") {
        result.readingOnResult = reading().shown;
        result.headerOnResult = { back: shown("back"), wand: shown("wand") };
      }
      result.runs.push({
        button,
        text: textNode.data,
        firstTokenMs: firstShown === null ? null : firstShown - started,
        totalMs: performance.now() - started,
        outputMessages: outputs,
      });
    }
    result.buttons = ["copy", "insert", "second"].filter(shown).map((id) => $(`${id}Label`).textContent);

    $("copy").click();
    await until(() => (state.copyBounces === 1 || state.error) && !state.copying, 40);
    progress("copied");
    result.copyBounces = state.copyBounces;
    result.error = state.error;

    // The reply into the plain-text reply that opened the panel.
    result.inserted = await insert();
    progress("inserted");

    // Back, then another model from the picker.
    $("back").click();
    await until(() => state.page === "input" && textNode.data === "", 10);
    result.afterBack = { page: state.page, text: textNode.data };
    const model = $("model");
    model.value = config.pickedModel;
    model.dispatchEvent(new Event("change"));
    await until(() => state.modelPicker.selection === config.pickedModel, 10);
    progress("model picked");

    // The whole message instead of its quoted passages, for the runs from here on.
    $("readingToggle").click();
    await until(() => state.reading.wholeMessage, 10);
    result.readingSwitched = reading();

    // A slow reply, stopped after its first words: they stay.
    outputs = 0;
    writingSeen = false;
    $("generate").click();
    await until(() => outputs > 0 && state.page === "result", 20);
    await until(() => $("second").dataset.operation === "stopGeneration", 5);
    $("second").click();
    await until(() => state.header.title !== "Writing...", 20);
    result.stopped = { text: textNode.data, title: state.header.title, button: $("second").dataset.operation };
    progress("stopped");

    // Another slow one, and the panel is closed while it runs.
    outputs = 0;
    $("second").click();
    await until(() => outputs > 0 && state.header.title === "Writing...", 20);
    result.closedWhileWriting = true;
  } catch (e) {
    result.failure = failure(e);
  }
  // The background driver goes on with the sending.
  await done(result);
  if (result.closedWhileWriting) window.close();
})();
