// Questions to the server. Whoever is asked for again must be logged in: the page then shows the
// log-in and goes on.

let token = '';
let whenLoggedOut = () => {};
let whenStale = () => {};

export class ApiError extends Error {
  constructor(status, code, message) {
    super(message);
    this.status = status;
    this.code = code;
  }
}

export function setToken(csrf) {
  token = csrf;
}

export function onLoggedOut(handler) {
  whenLoggedOut = handler;
}

/** Another window has logged in: what stands here may be somebody else's. */
export function onStale(handler) {
  whenStale = handler;
}

async function send(method, path, body, signal) {
  const headers = {Accept: 'application/json'};
  if (body !== undefined) {
    headers['Content-Type'] = 'application/json';
    headers['X-CSRF-Token'] = token;
  }
  let answer;
  try {
    answer = await fetch(path, {method, headers, signal, cache: 'no-store',
      body: body === undefined ? undefined : JSON.stringify(body)});
  } catch (error) {
    if (error.name === 'AbortError') throw error;
    throw new ApiError(0, 'network', 'The server cannot be reached.');
  }
  const json = await answer.json().catch(() => ({}));
  if (answer.ok) return json;
  const {code = 'internal', message = `The server answered with ${answer.status}.`} = json.error ?? {};
  if (code === 'session') whenLoggedOut();
  if (code === 'csrf') whenStale();
  throw new ApiError(answer.status, code, message);
}

/** `parameters` that are empty are left out. */
export function get(path, parameters = {}, signal = undefined) {
  const query = new URLSearchParams(Object.entries(parameters).filter(([, value]) => value !== '' && value !== undefined));
  const text = query.toString();
  return send('GET', `/api/${path}${text ? `?${text}` : ''}`, undefined, signal);
}

export function post(path, body = {}, signal = undefined) {
  return send('POST', `/api/${path}`, body, signal);
}
