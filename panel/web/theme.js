// Before anything is drawn: the colours that were chosen here last.
(() => {
  const chosen = localStorage.getItem('backup2-theme');
  if (chosen) document.documentElement.dataset.theme = chosen;
})();
