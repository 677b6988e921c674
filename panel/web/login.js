// The log-in.
import {post} from './api.js';
import {h, notice} from './dom.js';

/** `hint`: why somebody who was here already has to log in. */
export function loginPage(whenDone, hint = '') {
  const user = h('input', {id: 'login-user', name: 'user', autocomplete: 'username', required: true, autocapitalize: 'none', spellcheck: 'false', maxlength: '64'});
  const password = h('input', {id: 'login-password', name: 'password', type: 'password', autocomplete: 'current-password', required: true, maxlength: '1024'});
  const button = h('button', {class: 'button primary wide', type: 'submit'}, 'Log in');
  const problem = h('div', {role: 'alert'});
  const submit = async (event) => {
    event.preventDefault();
    button.disabled = true;
    problem.replaceChildren();
    try {
      whenDone(await post('login', {user: user.value, password: password.value}));
    } catch (error) {
      problem.replaceChildren(notice('bad', error.message));
      password.value = '';
      password.focus();
    } finally {
      button.disabled = false;
    }
  };
  return {title: 'Log in', focus: user, content: [h('section', {class: 'card login'},
    h('h1', {}, 'Log in'),
    hint ? notice('info', hint) : h('p', {class: 'hint'}, 'With your name and password of the hosting panel.'),
    problem,
    h('form', {onsubmit: submit},
      h('div', {class: 'field'}, h('label', {for: 'login-user'}, 'User name'), user),
      h('div', {class: 'field'}, h('label', {for: 'login-password'}, 'Password'), password),
      button))]};
}
