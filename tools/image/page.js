// SPDX-License-Identifier: Apache-2.0
// Which overlay shows is kept in the address, so that a view can be passed on: report.html#period.
const stage = document.querySelector('.stage');
const shown = stage.querySelector('img'), note = stage.querySelector('.note');
const none = shown.src;
function show(name) {
  const panel = document.getElementById('panel-' + name);
  const legend = panel && panel.querySelector('.legend');
  shown.src = panel ? panel.querySelector('img').src : none;
  shown.className = panel ? panel.querySelector('img').className : '';
  note.innerHTML = legend ? legend.outerHTML : '';
  document.documentElement.dataset.overlay = panel ? name : 'none';
  for (const input of stage.querySelectorAll('[name=overlay]')) input.checked = input.value === (panel ? name : 'none');
}
stage.addEventListener('change', event => {
  if (event.target.name === 'overlay') location.hash = event.target.value;
  else shown.style.opacity = event.target.value / 100;
});
addEventListener('hashchange', () => show(location.hash.slice(1)));
show(location.hash.slice(1));
addEventListener('load', () => {
  const pictures = [...document.querySelectorAll('figure img')];
  document.documentElement.dataset.pictures = pictures.filter(picture => picture.naturalWidth > 1).length;
});
