// Sorts the table of dumps.
'use strict';
(() => {
  const table = document.getElementById('dumps');
  const headings = [...table.tHead.rows[0].cells];
  const body = table.tBodies[0];

  // Figures begin with the greatest, texts with the first. Rows without a figure come last.
  function sort(heading) {
    const column = headings.indexOf(heading), isNumber = heading.classList.contains('n');
    const reverse = heading.getAttribute('aria-sort') === (isNumber ? 'descending' : 'ascending');
    for (const each of headings) each.removeAttribute('aria-sort');
    heading.setAttribute('aria-sort', isNumber === reverse ? 'ascending' : 'descending');
    const text = (row) => row.cells[column].textContent;
    const compare = (a, b) => isNumber ? b - a : a.localeCompare(b, 'en', {numeric: true});
    const rows = [...body.rows].sort((a, b) => {
      const none = (text(a) === '-') - (text(b) === '-');
      return none || compare(text(a), text(b)) * (reverse ? -1 : 1);
    });
    body.append(...rows);
  }

  for (const heading of headings) {
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = heading.textContent;
    button.addEventListener('click', () => sort(heading));
    heading.replaceChildren(button);
  }
})();
