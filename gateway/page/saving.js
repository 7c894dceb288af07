// Saves the recording of all grippers as a file.
import { get } from "./api.js";
import { element } from "./dom.js";
import { text } from "./i18n.js";
import { csvOf } from "./recording.js";

export async function saveRecording(picture, notes, say) {
    try {
        const ids = picture.state?.grippers.map(({ id }) => id) ?? [];
        const histories = await Promise.all(ids.map((id) => get(`history?gripper=${id}&seconds=600`)));
        const csv = csvOf(histories, notes);
        const lines = csv.split("\n").length - 2;
        if (lines === 0) {
            say(text("csv.failed", { reason: text("csv.empty") }), "bad");
            return;
        }
        const file = `grippers-${histories[0].at.slice(0, 19).replaceAll(":", "")}.csv`;
        const url = URL.createObjectURL(new Blob([csv], { type: "text/csv" }));
        element("a", { href: url, download: file }).click();
        URL.revokeObjectURL(url);
        say(text("csv.saved", { file, n: lines }), "good");
    } catch (error) {
        say(text("csv.failed", { reason: error.words ?? String(error) }), "bad");
    }
}
