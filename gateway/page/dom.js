// Small helpers for the document.
export const byId = (id) => document.getElementById(id);

/** A new element. `attributes` are attributes; `children` are elements or texts. */
export function element(name, attributes = {}, ...children) {
    const created = document.createElement(name);
    for (const [attribute, value] of Object.entries(attributes))
        created.setAttribute(attribute, value);
    created.append(...children);
    return created;
}

/** Writes only what differs, so that a calm line costs no layout. */
export function setText(node, value) {
    if (node.textContent !== value)
        node.textContent = value;
}

export function setData(node, name, value) {
    if (node.dataset[name] !== value)
        node.dataset[name] = value;
}

export function setAttribute(node, name, value) {
    if (node.getAttribute(name) !== value)
        node.setAttribute(name, value);
}

/** Makes the children of `parent` those of `keys`, in this order. Keeps the elements of keys that stay. */
export function reconcile(parent, keys, create) {
    const present = new Map([...parent.children].map((child) => [child.dataset.key, child]));
    const wanted = keys.map((key) => {
        const child = present.get(String(key)) ?? create(key);
        child.dataset.key = key;
        return child;
    });
    if (wanted.length !== parent.children.length || wanted.some((child, index) => parent.children[index] !== child))
        parent.replaceChildren(...wanted);
    return wanted;
}
