// Puts the device's frames on a canvas: JPEG pictures through createImageBitmap, H.264
// Annex B access units through WebCodecs. Keeps the numbers the console shows.

const kWindowMs = 1000;

function hex(byte) {
  return byte.toString(16).padStart(2, '0');
}

// NAL units of an Annex B buffer: [{ type, start, end }] with start after the start code.
export function nalUnits(bytes) {
  const units = [];
  let i = 0;
  let start = -1;
  while (i + 2 < bytes.length) {
    if (bytes[i] === 0 && bytes[i + 1] === 0 && bytes[i + 2] === 1) {
      if (start >= 0) units.push({ start, end: i });
      i += 3;
      start = i;
    } else {
      ++i;
    }
  }
  if (start >= 0) units.push({ start, end: bytes.length });
  return units
    .map(({ start, end }) => {
      // A four-byte start code leaves one zero at the end of the previous unit.
      while (end > start && bytes[end - 1] === 0) --end;
      return { type: bytes[start] & 0x1f, start, end };
    })
    .filter((u) => u.end > u.start);
}

export class Screen {
  // `onNeedKeyFrame` asks the device for a complete picture (the stream's "sync").
  constructor(canvas, { onNeedKeyFrame, onError, onResize }) {
    this.canvas_ = canvas;
    this.context_ = canvas.getContext('2d');
    this.onNeedKeyFrame_ = onNeedKeyFrame;
    this.onError_ = onError;
    this.onResize_ = onResize;
    this.received_ = []; // [time, bytes]
    this.painted_ = []; // times
    this.paintedCount = 0;
    this.lastPaint_ = null;
    this.codec = null;
    this.jpegSequence_ = 0;
    this.jpegShown_ = 0;
    this.decoder_ = null;
    this.avcCodec_ = null;
    this.chunkTime_ = 0;
    this.lastSyncAsk_ = 0;
  }

  push(frame) {
    const bytes = frame.data;
    if (!(bytes instanceof Uint8Array)) return;
    this.received_.push([performance.now(), bytes.length]);
    this.codec = frame.mime_type;
    if (frame.mime_type === 'image/jpeg') this.jpeg_(bytes);
    else if (frame.mime_type === 'video/avc') this.avc_(bytes);
  }

  async jpeg_(bytes) {
    const sequence = ++this.jpegSequence_;
    let bitmap;
    try {
      bitmap = await createImageBitmap(new Blob([bytes], { type: 'image/jpeg' }));
    } catch (error) {
      this.onError_(`JPEG frame not decoded: ${error.message}`);
      return;
    }
    // Decodes can finish out of order; an older picture never replaces a newer one.
    if (sequence > this.jpegShown_) {
      this.jpegShown_ = sequence;
      this.paint_(bitmap, bitmap.width, bitmap.height);
    }
    bitmap.close();
  }

  avc_(bytes) {
    const units = nalUnits(bytes);
    const sps = units.find((u) => u.type === 7);
    const key = units.some((u) => u.type === 5);
    if (sps && sps.end - sps.start >= 4) {
      const codec = `avc1.${hex(bytes[sps.start + 1])}${hex(bytes[sps.start + 2])}${hex(bytes[sps.start + 3])}`;
      if (!this.decoder_ || this.decoder_.state === 'closed' || codec !== this.avcCodec_) this.configure_(codec);
    }
    if (!this.decoder_ || this.decoder_.state !== 'configured') return this.askForKeyFrame_();
    if (this.needKey_ && !key) return this.askForKeyFrame_();
    this.needKey_ = false;
    this.chunkTime_ += 100_000;
    try {
      this.decoder_.decode(new EncodedVideoChunk({ type: key ? 'key' : 'delta', timestamp: this.chunkTime_, data: bytes }));
    } catch (error) {
      this.decodeFailed_(error);
    }
  }

  configure_(codec) {
    this.reset();
    const decoder = new VideoDecoder({
      output: (picture) => {
        this.paint_(picture, picture.displayWidth, picture.displayHeight);
        picture.close();
      },
      error: (error) => {
        if (this.decoder_ === decoder) this.decodeFailed_(error);
      },
    });
    // Annex B: no description; without optimizeForLatency a picture waits for the next one.
    decoder.configure({ codec, optimizeForLatency: true });
    this.decoder_ = decoder;
    this.avcCodec_ = codec;
    this.needKey_ = true;
  }

  decodeFailed_(error) {
    this.onError_(`H.264 decoding failed (${error.message}); asking for a key frame`);
    this.reset();
    this.askForKeyFrame_();
  }

  askForKeyFrame_() {
    const now = performance.now();
    if (now - this.lastSyncAsk_ < 1000) return;
    this.lastSyncAsk_ = now;
    this.onNeedKeyFrame_();
  }

  reset() {
    if (this.decoder_ && this.decoder_.state !== 'closed') this.decoder_.close();
    this.decoder_ = null;
    this.avcCodec_ = null;
  }

  paint_(image, width, height) {
    if (this.canvas_.width !== width || this.canvas_.height !== height) {
      this.canvas_.width = width;
      this.canvas_.height = height;
      this.onResize_();
    }
    this.context_.drawImage(image, 0, 0, width, height);
    const now = performance.now();
    this.painted_.push(now);
    this.lastPaint_ = now;
    ++this.paintedCount;
  }

  stats() {
    const now = performance.now();
    while (this.received_.length && now - this.received_[0][0] > kWindowMs) this.received_.shift();
    while (this.painted_.length && now - this.painted_[0] > kWindowMs) this.painted_.shift();
    return {
      fps: this.painted_.length,
      bytesPerSecond: this.received_.reduce((sum, [, n]) => sum + n, 0),
      ageMs: this.lastPaint_ === null ? null : now - this.lastPaint_,
      frames: this.paintedCount,
      codec: this.codec,
      width: this.canvas_.width,
      height: this.canvas_.height,
    };
  }
}
