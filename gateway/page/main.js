// Starts the page: one picture of the line, and the parts that show it.
import { Cards } from "./cards.js";
import { Commands, StopBar } from "./commands.js";
import { Control } from "./control.js";
import { ask } from "./dialog.js";
import { byId } from "./dom.js";
import { EventList } from "./events.js";
import { duration, fillTexts, text } from "./i18n.js";
import { Jobs } from "./jobs.js";
import { Locks } from "./locks.js";
import { Maintenance } from "./maintenance.js";
import { Picture } from "./picture.js";
import { Notes } from "./recording.js";
import { saveRecording } from "./saving.js";
import { Stream } from "./stream.js";
import { Strip } from "./strip.js";
import { Trend } from "./trend.js";

const tickMs = 100;
const messageMs = 20000;
/** The kinds of events that contradict a good message. */
const contradictions = ["fault", "other-command", "missing", "link"];

fillTexts(document);

const picture = new Picture();
const notes = new Notes();
let said = {};
/** Shows a message. A problem stays until the next message, a good message about `gripper` until an event contradicts it. */
const say = (words, kind = "plain", gripper = null) => {
    const message = byId("message");
    message.textContent = words;
    message.dataset.kind = kind;
    const saying = (said = { kind, gripper });
    if (kind === "good")
        setTimeout(() => saying === said && say(""), messageMs);
};
/** Clears a good message about a gripper if `event` says that it may be wrong now. */
const unsayAfter = (event) => {
    const contradicts = contradictions.includes(event.kind) && !(event.kind === "link" && event.detail === "connected");
    const isGood = said.kind === "good" && said.gripper !== null;
    if (contradicts && isGood && [said.gripper, null].includes(event.gripper))
        say("");
};
const strip = new Strip(picture);
const control = new Control(picture, (holder) => strip.controlLost(holder));
const jobs = new Jobs(picture, say);
const commands = new Commands(picture, control, jobs);
const maintenance = new Maintenance(picture, control, jobs);
const trend = new Trend(picture, say);
const cards = new Cards(byId("cards"), jobs, choose);
const stopBar = new StopBar(control, jobs, pair);
const locks = new Locks(picture, control, maintenance);
const eventList = new EventList(byId("events"));
let chosenId = null;

function choose(id) {
    if (id !== chosenId) {
        chosenId = id;
        commands.choose(id);
        maintenance.choose(id);
        trend.show(id);
    }
    render();
}

/** Chooses another gripper if the chosen one has gone, for example to a new id. */
function keepChoice() {
    const ids = picture.state.grippers.map(({ id }) => id);
    if (!ids.includes(chosenId))
        choose(ids.includes(9) ? 9 : (ids[0] ?? null));
}

function render() {
    control.compare();
    jobs.look();
    strip.render(control);
    cards.render(picture, chosenId);
    byId("no-grippers").hidden = (picture.state?.grippers.length ?? 0) > 0;
    byId("no-grippers").textContent = text(picture.state ? "cards.none" : "cards.waiting");
    commands.render(picture);
    stopBar.render(picture, chosenId);
    maintenance.render(picture);
    locks.render(chosenId);
    eventList.render(picture);
}

const take = {
    picture(state) {
        const isAfterGap = picture.state === null || picture.isSilent;
        if (picture.replace(state)) {
            jobs.abandon();
            notes.forget();
            control.forget();
            strip.restarted();
        }
        keepChoice();
        if (isAfterGap)
            trend.show(chosenId);
        takeValues(state.grippers);
    },
    change(change) {
        picture.change(change);
        keepChoice();
        takeValues(change.grippers);
    },
    event(event) {
        picture.takeEvent(event);
        unsayAfter(event);
    },
    job: (job) => picture.takeJob(job),
};

function takeValues(grippers) {
    trend.take();
    for (const gripper of grippers)
        notes.take(gripper, picture.state.clock, picture.state.line.text);
}

const stream = new Stream(
    (event, value) => {
        // Later versions of the gateway may send other messages.
        if (!Object.hasOwn(take, event))
            return;
        take[event](value);
        strip.connected();
        render();
    },
    (error) => {
        picture.live = false;
        strip.lost(error);
        render();
    },
);

/** Asks for a pairing code. `reason` is why. */
async function pair(reason = "") {
    const body = [reason, text("pair.text")].filter((part) => part !== "").join("\n\n");
    await ask({
        title: text("pair.title"), body, acceptText: text("pair.accept"),
        fields: [{ label: text("pair.code"), kind: "code", attributes: { maxlength: "32" } }],
        accept: async ([code]) => {
            try {
                await pairWith(code);
                return "";
            } catch (error) {
                return error.words ?? String(error);
            }
        },
    });
}

async function pairWith(code) {
    const session = await control.pair(code);
    say(text("pair.done", { role: text(`role.${session.role}`), age: duration(session.expiresInSeconds) }), "good");
    // The next stream begins with the picture of the new role.
    stream.restart();
    strip.paired();
}

/** The QR code of a pairing holds the code behind "#", which the browser sends to no server. */
function pairFromAddress() {
    const code = new URLSearchParams(location.hash.slice(1)).get("code");
    if (code === null)
        return;
    history.replaceState(null, "", location.pathname);
    pairWith(code).catch((error) => say(error.words ?? String(error), "bad"));
}

async function takeControl() {
    const holder = picture.state?.control;
    if (!holder) {
        await control.take(false);
        return;
    }
    const values = { role: text(`role.${holder.role}`), peer: holder.peer, age: duration(picture.age(holder.sinceSeconds)) };
    if (await ask({ title: text("control.take-over.title"), body: text("control.take-over.text", values),
        acceptText: text("control.take-over"), danger: true }))
        await control.take(true);
}

byId("control-button").addEventListener("click", () => {
    if (!control.isPaired) {
        pair();
        return;
    }
    jobs.guard(byId("control-button"), async () => {
        try {
            await (control.isMine ? control.giveBack() : takeControl());
            strip.controlTaken();
        } catch (error) {
            say(error.words ?? String(error), "bad");
        }
        render();
    });
});
byId("unpair").addEventListener("click", () => jobs.guard(byId("unpair"), async () => {
    try {
        await control.unpair();
        say(text("pair.ended"));
    } catch (error) {
        say(error.words ?? String(error), "bad");
    }
    stream.restart();
    render();
}));
byId("theme").addEventListener("click", () => globalThis.toggleTheme());
byId("trend-csv").addEventListener("click", () => jobs.guard(byId("trend-csv"), () => saveRecording(picture, notes, say)));

setInterval(() => {
    trend.tick();
    render();
}, tickMs);
addEventListener("hashchange", pairFromAddress);
render();
pairFromAddress();
stream.restart();
