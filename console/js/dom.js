// Small DOM helpers. Texts always go in as text nodes, never as markup: what
// the gateway answers (task names, details, alarm texts) cannot become HTML.
//
//   el('td', {class: 'num'}, '42')   // <td class="num">42</td>

export function el(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === false || value === null || value === undefined) continue;
    element.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of children) {
    if (child === null || child === undefined) continue;
    element.append(child instanceof Node ? child : String(child));
  }
  return element;
}

export function byId(id) {
  return document.getElementById(id);
}

// Shows `text` in `element` (hidden when empty).
export function say(element, text) {
  element.textContent = text ?? '';
  element.hidden = !text;
}
