// The modules of the page without a document. test_page_files.py runs them.
import assert from "node:assert/strict";
import { test } from "node:test";
import { pathToFileURL } from "node:url";

const page = pathToFileURL(`${process.env.PAGE_FOLDER}/`);
const { EventParser } = await import(new URL("sse.js", page));
const { Picture } = await import(new URL("picture.js", page));
const { csvOf, Notes, timeText } = await import(new URL("recording.js", page));
const { Samples } = await import(new URL("samples.js", page));
const { duration } = await import(new URL("i18n.js", page));

test("the parser returns the same messages for every way to cut the stream", () => {
    const text = ": comment\n\nevent: change\ndata: {\"a\":1}\n\nevent: job\r\ndata:first\r\ndata: second\r\n\r\ndata: x\n\n";
    const messages = [{ event: "change", data: "{\"a\":1}" }, { event: "job", data: "first\nsecond" },
        { event: "message", data: "x" }];
    for (let size = 1; size <= text.length; ++size) {
        const parser = new EventParser();
        const parts = [];
        for (let at = 0; at < text.length; at += size)
            parts.push(...parser.push(text.slice(at, at + size)));
        assert.deepEqual(parts, messages);
    }
});

const gripper = (id, values = {}) =>
    ({ id, kind: "fingers", object: "moving", fault: null, missingSeconds: null, otherCommandAgeSeconds: null, ...values });
const state = (grippers, clock = 10) => ({
    clock, at: "", grippers, jobs: [], events: [], control: null, gateway: { instance: "a" },
    line: { stale: false, valueAgeSeconds: 0.5 },
});

test("ages grow on the clock of the browser from the arrival of a message", () => {
    let now = 1000;
    const picture = new Picture(() => now);
    picture.replace(state([]));
    now += 700;
    assert.equal(picture.age(0.5), 1.2);
    assert.equal(picture.clock, 10.7);
    assert.equal(picture.isSilent, false);
    now += 2400;
    assert.equal(picture.isSilent, true);
});

test("a change replaces and removes grippers by id, and the ages of the others count on", () => {
    const picture = new Picture(() => 0);
    picture.replace(state([gripper(2, { otherCommandAgeSeconds: 1 }), gripper(4), gripper(9, { position: 1 })]));
    picture.change({ clock: 13, at: "", line: {}, control: null, removed: [4], grippers: [gripper(9, { position: 2 }), gripper(3)] });
    assert.deepEqual(picture.state.grippers.map(({ id }) => id), [2, 3, 9]);
    assert.equal(picture.gripper(9).position, 2);
    assert.equal(picture.gripper(2).otherCommandAgeSeconds, 4);
});

test("another instance is a restart of the gateway", () => {
    const picture = new Picture(() => 0);
    assert.equal(picture.replace(state([])), false);
    assert.equal(picture.replace(state([])), false);
    assert.equal(picture.replace({ ...state([]), gateway: { instance: "b" } }), true);
});

test("times keep the offset of the gateway", () => {
    assert.equal(timeText("2024-05-17T00:00:00.125+02:00", -0.25), "2024-05-16T23:59:59.875+02:00");
    assert.equal(timeText("2024-05-17T09:30:00.000-03:30", 1), "2024-05-17T09:30:01.000-03:30");
    assert.equal(timeText("2024-05-17T09:30:00.000Z", 0), "2024-05-17T09:30:00.000+00:00");
});

test("an outage has one line, and the notes fill the columns that the history lacks", () => {
    const notes = new Notes();
    notes.take(gripper(9, { object: "met", fault: { code: 5 } }), 101.5, "RUNNING");
    notes.take(gripper(9), 102.5, "ERR_TIMEOUT");
    const history = { gripper: 9, clock: 105, at: "2024-05-17T09:30:00.000+02:00", t: [101, 102, 103, 104],
        position: [1, 2, null, null], request: [7, 7, null, null], current: [3, 3, null, null] };
    assert.equal(csvOf([history], notes), [
        "time,seconds,gripper,position,requested,current,object,fault,link",
        "2024-05-17T09:29:56.000+02:00,0.000,9,1,7,3,,,RUNNING",
        "2024-05-17T09:29:57.000+02:00,1.000,9,2,7,3,object,5,RUNNING",
        "2024-05-17T09:29:58.000+02:00,2.000,9,,,,,,ERR_TIMEOUT",
        ""].join("\n"));
});

test("the history goes before the samples that are newer", () => {
    const samples = new Samples(600);
    for (const clock of [1, 2, 3])
        samples.add(clock, { position: clock, echo: 9, current: 0 });
    samples.add(4, null);
    samples.fill({ t: [0, 1.5, 2], position: [0, 5, 6], request: [8, 8, 8], current: [1, 1, 1] });
    assert.deepEqual(samples.upTo(4, true), [[0, 1.5, 2, 3, 4], [1, 1, 1, 0, null], [0, 5, 6, 3, null], [8, 8, 8, 9, null]]);
    samples.add(5, { position: 7, echo: 7, current: 7 });
    assert.deepEqual(samples.upTo(6, false).map((column) => column.at(-1)), [6, 7, 7, 7]);
});

test("the samples of a long time are bounded", () => {
    const samples = new Samples(600);
    for (let clock = 0; clock < 4000; clock += 0.1)
        samples.add(clock, { position: 1, echo: 1, current: 1 });
    const [times] = samples.upTo(0, true);
    assert.ok(times.length < 6600 && times[0] <= 3400);
});

test("durations have one decimal only below ten seconds, and whole seconds have none", () => {
    assert.deepEqual([-0.5, 0.04, 9.94, 0, 7, 59.9, 125, 3725].map(duration), ["0.0 s", "0.0 s", "9.9 s", "0 s", "7 s", "59 s", "2 min 5 s", "1 h 2 min"]);
});
