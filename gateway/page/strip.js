// The strip at the top: the line, the age of its values, the control; and the banners above the stop bar.
import { faultText } from "./cards.js";
import { byId, element, reconcile, setData, setText } from "./dom.js";
import { duration, firstText, text } from "./i18n.js";

/** Ages change in the text at most this often, so that they can be read. */
const ageIntervalMs = 500;
const lampOf = { connected: "running", scanning: "scanning", upgrading: "busy", connecting: "busy", "timed-out": "timeout",
    gone: "gone", "no-daemon": "gone" };

export class Strip {
    #problem = null;
    #notice = "";
    #ageMs = -Infinity;
    #ageState = "";

    constructor(picture) {
        this.picture = picture;
        // The page gets longer by the height of the banners, so that they cover nothing at its end.
        const keepSpace = () => document.documentElement.style.setProperty("--banner-space", `${byId("banners").offsetHeight}px`);
        new ResizeObserver(keepSpace).observe(byId("banners"));
    }

    connected() {
        this.#problem = null;
    }

    lost(error) {
        this.#problem = error.code;
    }

    controlLost(holder) {
        this.#notice = holder
            ? text("banner.taken-over", { role: text(`role.${holder.role}`), peer: holder.peer })
            : text("banner.control-lost");
    }

    controlTaken() {
        this.#notice = "";
    }

    paired() {
        this.#notice = "";
    }

    restarted() {
        this.#notice = text("banner.restarted");
    }

    render(control) {
        const { state } = this.picture;
        const name = this.#lineName();
        setData(byId("line"), "state", lampOf[name] ?? "none");
        setText(byId("line-word"), text(`line.${name}`));
        this.#showAge(name);
        if (state) {
            const { name: host, version } = state.gateway;
            const key = state.line.version === null ? "daemon.unknown" : "daemon";
            setText(byId("daemon"), text(key, { name: host, version, driver: state.line.version }));
        }
        this.#showControl(control, name);
        this.#showBanners();
    }

    /** The name of the state that the engineer has to know first. */
    #lineName() {
        if (this.#problem === "unpaired")
            return "unpaired";
        if (this.#problem !== null || (this.picture.state !== null && this.picture.isSilent))
            return "lost";
        return this.picture.state?.line.state ?? "connecting";
    }

    #showAge(name) {
        const now = performance.now();
        if (now - this.#ageMs < ageIntervalMs && this.#ageState === name)
            return;
        this.#ageMs = now;
        this.#ageState = name;
        const age = this.#valueAge();
        setText(byId("line-age"), age === null ? text("line.no-value") : text("line.age", { age: age < 1 ? text("age.fresh") : duration(age) }));
    }

    #valueAge() {
        return this.picture.state ? this.picture.age(this.picture.state.line.valueAgeSeconds) : null;
    }

    #showControl(control, name) {
        this.#showPairing(control);
        // The last known holder may be this page itself.
        if (name === "lost") {
            setData(byId("control"), "held", "unknown");
            setText(byId("control-holder"), text("control.unknown"));
            byId("control-button").hidden = true;
            return;
        }
        const holder = this.picture.state?.control ?? null;
        const held = control.isMine ? "mine" : holder ? "other" : "free";
        setData(byId("control"), "held", held);
        const words = { mine: "control.mine", other: "control.other", free: "control.free" };
        const mayOperate = control.may("operate");
        const free = control.isPaired ? (mayOperate ? words.free : "control.viewer") : "control.unpaired";
        const values = holder ? { role: text(`role.${holder.role}`), peer: holder.peer } : {};
        setText(byId("control-holder"), text(held === "free" ? free : words[held], values));
        const action = { mine: "return", other: "take-over", free: "take" }[held];
        setText(byId("control-button"), text(`control.${control.isPaired ? action : "pair"}`));
        byId("control-button").hidden = control.isPaired && !mayOperate;
    }

    #showPairing(control) {
        byId("pairing").hidden = !control.isPaired;
        const left = this.picture.state?.you.expiresInSeconds ?? null;
        if (control.isPaired && left !== null) {
            const age = duration(Math.max(0, Math.floor(this.picture.sincePicture(left) / 60) * 60));
            setText(byId("pairing-text"), text("pair.until", { role: text(`role.${control.role}`), age }));
        }
    }

    #showBanners() {
        const banners = this.#banners();
        const keys = banners.map(([key]) => key);
        reconcile(byId("banners"), keys, () => element("p", {})).forEach((banner, index) => {
            const [, words, isBad] = banners[index];
            setText(banner, words);
            banner.classList.toggle("bad", isBad);
        });
    }

    /** What the engineer has to know: a key, the words, whether it is bad. */
    #banners() {
        const banners = [];
        const name = this.#lineName();
        const line = this.picture.state?.line;
        if (name === "unpaired" || name === "lost") {
            const key = this.#problem === "too-many" ? "banner.too-many" : `banner.${name}`;
            banners.push([key, text(key), name === "lost"]);
        } else if (line && name !== "connected") {
            const isBad = ["timed-out", "gone", "no-daemon"].includes(name);
            banners.push([name, firstText([`banner.${name}`, "banner.connecting"], { text: line.text }), isBad]);
        } else if (line?.muted) {
            banners.push(["muted", text("banner.muted"), false]);
        } else if (line?.stale) {
            const age = this.#valueAge();
            banners.push(["stale", text(age === null ? "banner.connecting" : "banner.stale", { age: duration(Math.floor(age ?? 0)) }), true]);
        }
        // The card with the fault may be out of sight.
        for (const { id, present, fault } of this.picture.state?.grippers ?? []) {
            if (present && fault !== null)
                banners.push([`fault-${id}`, text("event.fault", { id, detail: faultText(fault) }), true]);
        }
        if (this.#notice !== "")
            banners.push(["notice", this.#notice, false]);
        return banners;
    }
}
