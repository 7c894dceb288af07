// Sets the colours before the first paint: the engineer's choice, otherwise that of the system.
// A classic script, because a module would run after the first paint.
(() => {
    const root = document.documentElement;
    const system = matchMedia("(prefers-color-scheme: dark)");
    const chosen = () => {
        try {
            return localStorage.getItem("theme");
        } catch {
            return null;
        }
    };
    const apply = () => {
        root.dataset.theme = chosen() ?? (system.matches ? "dark" : "light");
        dispatchEvent(new Event("themechange"));
    };
    globalThis.toggleTheme = () => {
        const next = root.dataset.theme === "dark" ? "light" : "dark";
        try {
            localStorage.setItem("theme", next);
        } catch {
            // Without storage the choice lasts until the page ends.
        }
        root.dataset.theme = next;
        dispatchEvent(new Event("themechange"));
    };
    system.addEventListener("change", apply);
    apply();
})();
