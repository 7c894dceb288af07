// The trend of one gripper: position, request and current of the last ten minutes.
import { get } from "./api.js";
import { byId, setText } from "./dom.js";
import { duration, text } from "./i18n.js";
import { Samples } from "./samples.js";

const keptSeconds = 600;
const shortestSpan = 0.5;
/** Distances between the lines of the time axis. */
const steps = [0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 30, 60, 120, 300];
/** Ends of the current's axis, whose quarters are round. */
const currentLimits = [32, 64, 128, 256];
/** In the order of drawing: the position is above the current. */
const series = ["current", "position", "request"];
const colours = { position: "--accent", request: "--request", current: "--current" };

export class Trend {
    #id = null;
    #samples = new Samples(keptSeconds);
    #span = keptSeconds;
    /** The window while paused: two times on the gateway's clock. */
    #window = null;
    #plot = null;
    #drawnMs = 0;
    /** The time on the gateway's clock that was drawn as now. */
    #drawnNow = 0;
    #filling = 0;

    constructor(picture, say) {
        this.picture = picture;
        this.say = say;
        this.place = byId("chart");
        this.spans = [...document.querySelectorAll("[data-span]")];
        for (const button of this.spans)
            button.addEventListener("click", () => this.#choose(Number(button.dataset.span)));
        byId("trend-pause").addEventListener("click", () => this.#pause(this.#window === null));
        byId("trend-back").addEventListener("click", () => this.#shift(-0.5));
        byId("trend-forward").addEventListener("click", () => this.#shift(0.5));
        new ResizeObserver(() => this.#resize()).observe(this.place);
        addEventListener("themechange", () => this.#build());
        this.#build();
        this.#press();
    }

    /** Shows another gripper, or the same one again after a gap. */
    async show(id) {
        if (this.#id !== id)
            this.#window = null;
        this.#id = id;
        setText(byId("trend-title"), id === null ? text("trend.none") : text("trend.title", { id }));
        this.#samples.clear();
        this.#press();
        this.#draw();
        if (id === null)
            return;
        const filling = ++this.#filling;
        try {
            const history = await get(`history?gripper=${id}&seconds=${keptSeconds}`);
            if (filling === this.#filling)
                this.#samples.fill(history);
        } catch (error) {
            if (error.code !== "unknown-gripper" && error.code !== "unpaired" && filling === this.#filling)
                this.say(text("trend.failed", { reason: error.words }), "bad");
        }
        this.#draw();
    }

    /** Takes the values of the newest message. */
    take() {
        const gripper = this.picture.gripper(this.#id);
        if (gripper)
            this.#samples.add(this.picture.state.clock, this.picture.isStale(gripper) ? null : gripper);
    }

    /** Draws the present, as often as the span shows a difference. */
    tick() {
        const pauseMs = Math.min(1000, Math.max(100, (this.#span * 1000) / 600));
        if (this.#window === null && performance.now() - this.#drawnMs >= pauseMs)
            this.#draw();
    }

    #now() {
        return this.picture.state ? this.picture.clock : 0;
    }

    #range() {
        return this.#window ?? [this.#now() - this.#span, this.#now()];
    }

    #choose(span) {
        this.#span = span;
        if (this.#window)
            this.#window = [this.#window[1] - span, this.#window[1]];
        this.#press();
        this.#draw();
    }

    #pause(isPaused) {
        this.#window = isPaused ? this.#range() : null;
        if (!isPaused)
            this.#span = this.spans.map(({ dataset }) => Number(dataset.span)).find((span) => span <= this.#span * 1.01) ?? 20;
        this.#press();
        this.#draw();
    }

    #shift(share) {
        const [from, to] = this.#range();
        const end = Math.min(this.#now(), Math.max(to + share * (to - from), this.#now() - keptSeconds + (to - from)));
        this.#window = [end - (to - from), end];
        this.#press();
        this.#draw();
    }

    #zoom(plot) {
        const { left, width } = plot.select;
        if (width < 8)
            return;
        const from = plot.posToVal(left, "x");
        const to = Math.max(from + shortestSpan, plot.posToVal(left + width, "x"));
        this.#window = [from, to];
        this.#span = to - from;
        plot.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
        this.#press();
        this.#draw();
    }

    #press() {
        for (const button of this.spans)
            button.setAttribute("aria-pressed", String(Math.abs(Number(button.dataset.span) - this.#span) < 0.01));
        byId("trend-pause").setAttribute("aria-pressed", String(this.#window !== null));
    }

    #draw() {
        this.#drawnMs = performance.now();
        this.#drawnNow = this.#now();
        const [min, max] = this.#window ?? [this.#drawnNow - this.#span, this.#drawnNow];
        // The last value holds until the next one.
        this.#plot.setData(this.#samples.upTo(this.#drawnNow, this.picture.isSilent), false);
        this.#plot.setScale("x", { min, max });
        this.#describe();
    }

    #describe() {
        const index = this.#plot.cursor.idx;
        const data = this.#plot.data;
        const at = index === null || index === undefined ? null : data[0][index];
        series.forEach((name, column) => {
            const value = at === null ? null : data[column + 1][index];
            setText(byId(`legend-${name}`), value === null || value === undefined ? "" : String(value));
        });
        setText(byId("legend-time"), at === null ? "" : text("trend.cursor", { age: duration(this.#drawnNow - at) }));
    }

    #resize() {
        if (this.place.clientWidth > 0)
            this.#plot.setSize({ width: this.place.clientWidth, height: this.place.clientHeight });
    }

    #build() {
        this.#plot?.destroy();
        this.#plot = new globalThis.uPlot(this.#options(), this.#samples.upTo(0, true), this.place);
        this.#draw();
    }

    #options() {
        const style = getComputedStyle(document.documentElement);
        const colour = (name) => style.getPropertyValue(name).trim();
        const axis = { stroke: colour("--soft"), font: "14px system-ui", grid: { stroke: colour("--hair"), width: 1 },
            ticks: { stroke: colour("--hair"), width: 1 } };
        const line = (name, more) => ({ stroke: colour(colours[name]), width: 2, points: { show: false }, ...more });
        const held = globalThis.uPlot.paths.stepped({ align: 1 });
        return {
            width: this.place.clientWidth || 300,
            height: this.place.clientHeight || 240,
            padding: [10, 4, 0, 0],
            legend: { show: false },
            cursor: { y: false, drag: { x: true, y: false, setScale: false } },
            hooks: { setSelect: [(plot) => this.#zoom(plot)], setCursor: [() => this.#plot && this.#describe()] },
            scales: { x: { time: false }, byte: { range: [0, 255] }, current: { range: (_, __, max) => [0, currentLimits.find((limit) => limit >= max) ?? 256] } },
            axes: [
                { ...axis, size: 34, splits: (_, __, min, max) => this.#splits(min, max),
                    values: (_, splits) => splits.map((split) => this.#timeLabel(split)) },
                { ...axis, scale: "byte", size: 44, splits: () => [0, 64, 128, 192, 255] },
                { ...axis, scale: "current", side: 1, size: 44, grid: { show: false }, stroke: colour(colours.current),
                    splits: (_, __, ___, max) => [0, max / 4, max / 2, max * 0.75, max].map(Math.round) },
            ],
            series: [
                {},
                line("current", { scale: "current", width: 1 }),
                line("position", { scale: "byte", width: 2.5 }),
                line("request", { scale: "byte", dash: [8, 5], paths: held }),
            ],
        };
    }

    /** Times at round distances from now, so that the lines of a running chart stand still. */
    #splits(min, max) {
        const step = steps.find((candidate) => (max - min) / candidate <= this.place.clientWidth / 70) ?? keptSeconds;
        const now = this.#drawnNow;
        const splits = [];
        for (let count = Math.max(0, Math.ceil((now - max) / step)); now - count * step >= min; ++count)
            splits.unshift(now - count * step);
        return splits;
    }

    #timeLabel(split) {
        const seconds = this.#drawnNow - split;
        if (seconds < 0.05)
            return text("trend.now");
        const whole = Math.round(seconds);
        if (Math.abs(seconds - whole) > 0.01)
            return `−${seconds.toFixed(1)} s`;
        return whole < 60 ? `−${whole} s` : `−${Math.floor(whole / 60)}:${String(whole % 60).padStart(2, "0")}`;
    }
}
