'use strict';
const api = globalThis.browser ?? globalThis.chrome;
const States = {
    'running': 'Quillvane is running',
    'not running': 'Quillvane is not running: links stay in this browser until it starts.',
    'not installed': 'Quillvane is not installed: its native messaging host was not found.',
};

const leave = document.getElementById('leave');
api.storage.local.get({ leave: true }).then((stored) => (leave.checked = stored.leave !== false));
leave.addEventListener('change', () => api.storage.local.set({ leave: leave.checked }));

function show(answer) {
    document.getElementById('state').textContent =
        States[answer?.connection] ?? 'Quillvane has not answered yet.';
    document.getElementById('detail').textContent = answer?.error ?? '';
}
api.runtime.sendMessage({ type: 'state' }).then(show, () => show(null));
