// The texts in the engineer's language. A translation adds its file texts.LANGUAGE.js and its name here.
export const languages = ["en"];

const chosen = (globalThis.navigator?.languages ?? [])
    .map((language) => language.split("-")[0])
    .find((language) => languages.includes(language)) ?? "en";
const texts = (await import(`./texts.${chosen}.js`)).default;

export const hasText = (key) => Object.hasOwn(texts, key);

/** The text of `key`, with `values` in place of the words in braces. */
export function text(key, values = {}) {
    return (texts[key] ?? key).replace(/\{(\w+)\}/g, (_, name) => values[name] ?? text.none);
}
text.none = texts["value.none"];

/** The text of the first key that exists. */
export function firstText(keys, values) {
    return text(keys.find(hasText) ?? keys.at(-1), values);
}

/** A duration in words: "0.4 s", "2 min 5 s", "1 h 2 min". Whole seconds have no decimal. */
export function duration(seconds) {
    if (seconds < 10 && !Number.isInteger(seconds))
        return text("age.seconds", { n: Math.max(0, seconds).toFixed(1) });
    const whole = Math.floor(seconds);
    if (whole < 60)
        return text("age.seconds", { n: whole });
    if (whole < 3600)
        return text("age.minutes", { m: Math.floor(whole / 60), s: whole % 60 });
    return text("age.hours", { h: Math.floor(whole / 3600), m: Math.floor((whole % 3600) / 60) });
}

/** Fills the texts into the elements of the page that name them. */
export function fillTexts(root) {
    document.documentElement.lang = chosen;
    for (const element of root.querySelectorAll("[data-text]"))
        element.textContent = text(element.dataset.text);
    for (const element of root.querySelectorAll("[data-label]"))
        element.setAttribute("aria-label", text(element.dataset.label));
}
