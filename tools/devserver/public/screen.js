// Puts the device's frames on a canvas: JPEG pictures through createImageBitmap, H.264
// Annex B access units through WebCodecs. Keeps the numbers the console shows, and the last
// painted frames for whoever measures the stream (see `recentFrames`).

const kWindowMs = 1000;
const kRecentFrames = 1000;

// Milliseconds since 1970 on this machine's clock, comparable with the device's when it runs here.
const epochNow = () => performance.timeOrigin + performance.now();

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
    this.receivedCount = 0;
    this.receivedBytes = 0;
    // The last frames painted, oldest first: { id, seq, key, bytes, sent, received, painted },
    // `seq` counting the frames received, times in ms since 1970. `sent` is the device's
    // timestamp, which the wire gives to the second.
    this.recentFrames = [];
    this.lastPaint_ = null;
    this.codec = null;
    this.jpegSequence_ = 0;
    this.jpegShown_ = 0;
    this.decoder_ = null;
    this.avcCodec_ = null;
    this.chunkTime_ = 0;
    this.chunkFrames_ = new Map(); // chunk timestamp -> frame record, until decoded
    this.lastSyncAsk_ = 0;
    this.keyFrameAsks = 0;
  }

  push(frame) {
    const bytes = frame.data;
    if (!(bytes instanceof Uint8Array)) return;
    this.received_.push([performance.now(), bytes.length]);
    ++this.receivedCount;
    this.receivedBytes += bytes.length;
    this.codec = frame.mime_type;
    const sent = typeof frame.timestamp === 'string' ? Date.parse(frame.timestamp) : NaN;
    const record = {
      id: frame.id,
      seq: this.receivedCount,
      key: frame.mime_type === 'image/jpeg',
      bytes: bytes.length,
      sent: Number.isNaN(sent) ? null : sent,
      received: epochNow(),
      painted: null,
    };
    if (frame.mime_type === 'image/jpeg') this.jpeg_(bytes, record);
    else if (frame.mime_type === 'video/avc') this.avc_(bytes, record);
  }

  async jpeg_(bytes, record) {
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
      this.paint_(bitmap, bitmap.width, bitmap.height, record);
    }
    bitmap.close();
  }

  avc_(bytes, record) {
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
    record.key = key;
    this.chunkFrames_.set(this.chunkTime_, record);
    // A decoder that swallows chunks must not grow the map without end.
    if (this.chunkFrames_.size > kRecentFrames) this.chunkFrames_.delete(this.chunkFrames_.keys().next().value);
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
        const record = this.chunkFrames_.get(picture.timestamp) ?? null;
        this.chunkFrames_.delete(picture.timestamp);
        this.paint_(picture, picture.displayWidth, picture.displayHeight, record);
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
    ++this.keyFrameAsks;
    this.onNeedKeyFrame_();
  }

  reset() {
    if (this.decoder_ && this.decoder_.state !== 'closed') this.decoder_.close();
    this.decoder_ = null;
    this.avcCodec_ = null;
    this.chunkFrames_.clear();
  }

  paint_(image, width, height, record) {
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
    if (record) {
      record.painted = epochNow();
      this.recentFrames.push(record);
      if (this.recentFrames.length > kRecentFrames) this.recentFrames.shift();
    }
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
