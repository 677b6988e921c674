// Numbers and times for people.

const UNITS = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];

export function bytes(count) {
  let unit = 0;
  let value = count;
  for (; value >= 1000 && unit + 1 < UNITS.length; unit += 1) value /= 1024;
  return `${unit === 0 ? value : value.toFixed(1)} ${UNITS[unit]}`;
}

export function plural(count, word, words = `${word}s`) {
  return `${count.toLocaleString('en')} ${count === 1 ? word : words}`;
}

/** Of the server's "YYYY-MM-DD HH:MM:SS" (its own local time) the day. */
export const day = (time) => time.slice(0, 10);

export function weekday(date) {
  const at = new Date(`${date}T12:00:00Z`);
  return Number.isNaN(at.getTime()) ? '' : at.toLocaleDateString('en', {weekday: 'short', timeZone: 'UTC'});
}

/** Whole days from a day of the server's until now; negative when clocks differ. */
export function daysSince(date) {
  return Math.floor((Date.now() - Date.parse(`${date}T00:00:00`)) / 86400000);
}

export function age(date) {
  const days = daysSince(date);
  if (Number.isNaN(days)) return '';
  if (days <= 0) return 'today';
  return days === 1 ? 'yesterday' : `${days} days ago`;
}

export function seconds(count) {
  const two = (n) => String(n).padStart(2, '0');
  const hours = Math.floor(count / 3600);
  const rest = `${two(Math.floor(count / 60) % 60)}:${two(Math.floor(count % 60))}`;
  return hours > 0 ? `${hours}:${rest}` : rest;
}

/** Seconds since the epoch in the time of who looks. */
export function moment(epoch) {
  const at = new Date(epoch * 1000);
  const two = (n) => String(n).padStart(2, '0');
  return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ${two(at.getHours())}:${two(at.getMinutes())}`;
}
