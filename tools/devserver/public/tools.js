// The agent's hands on the shared screen: pointer and keys (with remote control), drawing
// and the laser. Positions go out as fractions of the picture, origin at the top left.

const kStrokeWidth = 4; // CSS pixels
const kDisappearsIn = 3000; // ms
const kFadeDuration = 1000; // ms

// "yyyy-MM-dd'T'HH:mm:ss.SSSZ" with a numeric zone, as the device parses it.
export function inputTimestamp(date = new Date()) {
  return date.toISOString().replace('Z', '+0000');
}

let drawingCounter = 0;

export class Tools {
  // `send(event, data)` puts a message on the session's socket; `agentId()` names the agent.
  constructor({ stage, screen, ink, laserDot, send, agentId, colour, disappearing }) {
    this.stage_ = stage;
    this.screen_ = screen;
    this.ink_ = ink;
    this.inkContext_ = ink.getContext('2d');
    this.laserDot_ = laserDot;
    this.send_ = send;
    this.agentId_ = agentId;
    this.colour_ = colour;
    this.disappearing_ = disappearing;
    this.tool = 'none';
    this.strokes_ = []; // { points, colour, until }
    this.current_ = null;
    this.pressed_ = new Set();

    ink.addEventListener('pointerdown', (e) => this.pointer_(e, 'down'));
    ink.addEventListener('pointermove', (e) => this.pointer_(e, 'move'));
    ink.addEventListener('pointerup', (e) => this.pointer_(e, 'up'));
    ink.addEventListener('pointercancel', (e) => this.pointer_(e, 'up'));
    ink.addEventListener('contextmenu', (e) => {
      if (this.tool === 'control') e.preventDefault();
    });
    stage.addEventListener('keydown', (e) => this.key_(e, 'keydown'));
    stage.addEventListener('keyup', (e) => this.key_(e, 'keyup'));
    stage.addEventListener('blur', () => this.releaseKeys_());
    new ResizeObserver(() => this.redraw_()).observe(screen);
  }

  setTool(tool) {
    this.releaseKeys_();
    this.tool = tool;
    this.stage_.dataset.tool = tool;
  }

  fraction_(event) {
    const rect = this.screen_.getBoundingClientRect();
    const clamp = (v) => Math.min(1, Math.max(0, v));
    return {
      x: clamp((event.clientX - rect.left) / rect.width),
      y: clamp((event.clientY - rect.top) / rect.height),
    };
  }

  pointer_(event, phase) {
    if (this.tool === 'none') return;
    const { x, y } = this.fraction_(event);
    if (phase === 'down') {
      this.ink_.setPointerCapture(event.pointerId);
      this.down_ = true;
      this.stage_.focus({ preventScroll: true });
    } else if (phase === 'move' && !this.down_ && this.tool !== 'control') {
      return;
    }
    if (phase === 'up') {
      if (!this.down_) return;
      this.down_ = false;
    }
    event.preventDefault();

    if (this.tool === 'control') {
      const state = { down: 'mousedown', move: 'mousemove', up: 'mouseup' }[phase];
      this.send_('mouse', { type: 'Mouse', id: 'agent-pointer', state, button: Math.max(0, event.button), x, y, timestamp: inputTimestamp() });
    } else if (this.tool === 'laser') {
      const state = { down: 'touchstart', move: 'touchmove', up: 'touchend' }[phase];
      this.send_('laser', { type: 'Laser', id: 'laser', state, x, y, colour: this.colour_() });
      this.showDot_(phase === 'up' ? null : { x, y });
    } else if (this.tool === 'draw') {
      this.draw_(phase, x, y);
    }
  }

  key_(event, state) {
    if (this.tool !== 'control') return;
    if (event.key === 'Escape' && event.shiftKey) {
      // The way out of a screen that otherwise takes every key.
      this.releaseKeys_();
      this.stage_.blur();
      document.querySelector('input[name="tool"]:checked')?.focus();
      return;
    }
    event.preventDefault();
    if (state === 'keydown') this.pressed_.add(event.code);
    else this.pressed_.delete(event.code);
    this.send_('keypress', { type: 'KeyPress', key: event.key, code: event.code, state });
  }

  // Keys still held when the screen loses focus would stay pressed on the device.
  releaseKeys_() {
    for (const code of this.pressed_) this.send_('keypress', { type: 'KeyPress', key: '', code, state: 'keyup' });
    this.pressed_.clear();
  }

  showDot_(position) {
    this.laserDot_.hidden = !position;
    if (!position) return;
    this.laserDot_.style.left = `${position.x * 100}%`;
    this.laserDot_.style.top = `${position.y * 100}%`;
    this.laserDot_.style.background = this.colour_();
  }

  draw_(phase, x, y) {
    if (phase === 'down') {
      this.current_ = { points: [{ x, y }], colour: this.colour_(), until: Infinity };
      this.strokes_.push(this.current_);
    } else if (this.current_) {
      this.current_.points.push({ x, y });
    }
    this.redraw_();
    if (phase === 'up' && this.current_) {
      const stroke = this.current_;
      this.current_ = null;
      this.sendStroke_(stroke);
    }
  }

  // The stroke is rendered here, at the picture's resolution, into a transparent PNG of its
  // bounding box; the device shows the picture in that rectangle.
  async sendStroke_(stroke) {
    const width = this.screen_.width;
    const height = this.screen_.height;
    const pad = (kStrokeWidth * width) / this.screen_.getBoundingClientRect().width;
    const xs = stroke.points.map((p) => p.x * width);
    const ys = stroke.points.map((p) => p.y * height);
    const left = Math.max(0, Math.floor(Math.min(...xs) - pad));
    const top = Math.max(0, Math.floor(Math.min(...ys) - pad));
    const right = Math.min(width, Math.ceil(Math.max(...xs) + pad));
    const bottom = Math.min(height, Math.ceil(Math.max(...ys) + pad));
    const w = Math.max(1, right - left);
    const h = Math.max(1, bottom - top);
    const canvas = new OffscreenCanvas(w, h);
    const context = canvas.getContext('2d');
    this.strokePath_(context, stroke, (p) => [p.x * width - left, p.y * height - top], pad);
    const blob = await canvas.convertToBlob({ type: 'image/png' });
    const image = new Uint8Array(await blob.arrayBuffer());
    const drawing = {
      type: 'Drawing',
      id: `stroke-${Date.now().toString(36)}-${++drawingCounter}`,
      agent: this.agentId_(),
      image,
      mime_type: 'image/png',
      x: left / width,
      y: top / height,
      width: w / width,
      height: h / height,
    };
    if (this.disappearing_()) {
      drawing.disappears_in = kDisappearsIn;
      drawing.fade_duration = kFadeDuration;
      stroke.until = performance.now() + kDisappearsIn + kFadeDuration;
      setTimeout(() => this.redraw_(), kDisappearsIn + kFadeDuration + 20);
    }
    this.send_('drawing', drawing);
  }

  clear() {
    this.strokes_ = [];
    this.current_ = null;
    this.redraw_();
    // No picture: the device drops every drawing of this agent.
    this.send_('drawing', { type: 'Drawing', id: 'clear', agent: this.agentId_() });
  }

  strokePath_(context, stroke, map, width) {
    context.strokeStyle = stroke.colour;
    context.lineWidth = width;
    context.lineCap = 'round';
    context.lineJoin = 'round';
    context.beginPath();
    stroke.points.forEach((p, i) => {
      const [x, y] = map(p);
      if (i === 0) context.moveTo(x, y);
      else context.lineTo(x, y);
    });
    if (stroke.points.length === 1) {
      const [x, y] = map(stroke.points[0]);
      context.lineTo(x + 0.01, y);
    }
    context.stroke();
  }

  redraw_() {
    const rect = this.screen_.getBoundingClientRect();
    const ratio = window.devicePixelRatio || 1;
    const w = Math.max(1, Math.round(rect.width * ratio));
    const h = Math.max(1, Math.round(rect.height * ratio));
    if (this.ink_.width !== w || this.ink_.height !== h) {
      this.ink_.width = w;
      this.ink_.height = h;
    }
    const now = performance.now();
    this.strokes_ = this.strokes_.filter((s) => s.until > now);
    this.inkContext_.clearRect(0, 0, w, h);
    for (const stroke of this.strokes_) this.strokePath_(this.inkContext_, stroke, (p) => [p.x * w, p.y * h], kStrokeWidth * ratio);
  }
}
