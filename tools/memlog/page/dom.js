// Small helpers around elements.

/** An element with properties and children; texts become text nodes. */
export function make(tag, properties = {}, ...children) {
  const element = Object.assign(document.createElement(tag), properties);
  element.append(...children);
  return element;
}

/** Value of a custom property of the page's style, which depends on the colour scheme. */
export function color(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}

/**
 * A row of buttons of which one is pressed.
 * @param {HTMLElement} parent @param {string[]} labels
 * @param {(index: number) => void} onChoose also called for the first one, at once.
 */
export function addChoices(parent, labels, onChoose) {
  const buttons = labels.map((label) => make("button", { type: "button", textContent: label }));
  const choose = (index) => {
    buttons.forEach((button, other) => button.setAttribute("aria-pressed", String(other === index)));
    onChoose(index);
  };
  buttons.forEach((button, index) => button.addEventListener("click", () => choose(index)));
  parent.append(...buttons);
  choose(0);
}
