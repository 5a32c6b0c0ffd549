// One encoder/decoder configuration for every socket the service speaks on, and the same
// options the console uses in the browser: plain maps, byte strings as untagged byte strings.
import { Encoder, Decoder, setSizeLimits } from 'cbor-x';

// A message is bounded by the socket's payload limit; these keep a hostile length field
// from turning into a huge allocation before the decoder notices the bytes are not there.
setSizeLimits({ maxArraySize: 100_000, maxMapSize: 10_000, maxObjectSize: 10_000 });

const encoder = new Encoder({
  useRecords: false,
  tagUint8Array: false,
  variableMapSize: true,
  useTag259ForMaps: false,
});
const decoder = new Decoder({ useRecords: false, int64AsNumber: true });

export function encode(value) {
  return encoder.encode(value);
}

// Throws on anything that is not exactly one well-formed item.
export function decode(bytes) {
  return decoder.decode(bytes);
}

export function isMap(value) {
  return (
    value !== null &&
    typeof value === 'object' &&
    !Array.isArray(value) &&
    !(value instanceof Uint8Array) &&
    (Object.getPrototypeOf(value) === Object.prototype || Object.getPrototypeOf(value) === null)
  );
}
