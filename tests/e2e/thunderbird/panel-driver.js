// The panel's half of the end-to-end driver (test build only): presses the panel's own
// buttons, as a user would, and times what the page shows.
"use strict";
/* global messenger, state, textNode, port, $ */

(async () => {
  const config = await messenger.runtime.sendMessage({ type: "e2e-mode" });
  if (!config) return;
  // Where the driver is, for the harness's log when something hangs.
  const progress = (stage) =>
    fetch(config.report, { method: "POST", body: JSON.stringify({ step: "panel-progress", stage }) });
  progress("loaded");
  const until = async (test, seconds = 60) => {
    const end = Date.now() + seconds * 1000;
    while (Date.now() < end) {
      if (test()) return;
      await new Promise((r) => setTimeout(r, 2));
    }
    throw new Error("timed out");
  };
  // The reading line and its control as the page shows them.
  const reading = () => ({
    line: $("readingLine").textContent,
    control: $("readingToggle").textContent,
    shown: $("reading").getClientRects().length > 0,
  });
  if (config.reopened) {
    // The panel opened again after the reading was switched: it only says what it shows.
    const again = { step: "reopened" };
    try {
      await until(() => state && state.page === "input", 30);
      again.reading = reading();
    } catch (e) {
      again.failure = `${e}\nstate: ${JSON.stringify(state)}`;
    }
    await fetch(config.report, { method: "POST", body: JSON.stringify(again) });
    await messenger.runtime.sendMessage({ type: "e2e-panel" }).catch((e) => progress(`not told: ${e}`));
    window.close();
    return;
  }
  const result = { runs: [] };
  try {
    // Every piece of reply from the host, counted and timed after the page has shown it (the
    // page's own listener runs first).
    let outputs = 0;
    let firstShown = null;
    let writingSeen = false;
    port.onMessage.addListener((m) => {
      if (m.type === "state" && m.header.title === "Writing...") writingSeen = true;
      if (m.type !== "output") return;
      outputs += 1;
      if (firstShown === null) firstShown = performance.now();
    });
    await until(() => state && state.page === "input", 30);
    progress("input page");
    result.readingAtStart = reading();
    result.instruction = $("instruction").value;
    result.model = $("model").value;

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
      await until(() => writingSeen && state.page === "result" && state.header.title !== "Writing...");
      progress(`${button} done`);
      if (button === "generate") result.readingOnResult = reading().shown;
      result.runs.push({
        button,
        text: textNode.data,
        firstTokenMs: firstShown === null ? null : firstShown - started,
        totalMs: performance.now() - started,
        outputMessages: outputs,
      });
    }

    $("copy").click();
    await until(() => (state.copyBounces === 1 || state.error) && !state.copying, 40);
    progress("copied");
    result.copyBounces = state.copyBounces;
    result.error = state.error;

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
    await until(() => state.buttons[1].operation === "stopGeneration", 5);
    $("second").click();
    await until(() => state.header.title !== "Writing...", 20);
    result.stopped = { text: textNode.data, title: state.header.title, button: state.buttons[1].operation };
    progress("stopped");

    // Another slow one, and the panel is closed while it runs.
    outputs = 0;
    $("second").click();
    await until(() => outputs > 0 && state.header.title === "Writing...", 20);
    result.closedWhileWriting = true;
  } catch (e) {
    result.failure = `${e}\n${e && e.stack}\nstate: ${JSON.stringify(state)}\nerror line: ${$("error").textContent}`;
  }
  await fetch(config.report, { method: "POST", body: JSON.stringify({ step: "panel", ...result }) });
  // The background driver goes on with the sending.
  await messenger.runtime.sendMessage({ type: "e2e-panel" }).catch((e) => progress(`not told: ${e}`));
  if (result.closedWhileWriting) window.close();
})();
