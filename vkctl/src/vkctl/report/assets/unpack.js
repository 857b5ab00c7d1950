// Arrays of the page: Base64, deflated, low bytes before high ones, each number told by its
// difference from the one before.

async function unpackedNumbers(text, numbers) {
  const coded = atob(text);
  const bytes = new Uint8Array(coded.length);
  for (let i = 0; i < coded.length; i++) bytes[i] = coded.charCodeAt(i);
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("deflate"));
  const planes = new Uint8Array(await new Response(stream).arrayBuffer());
  const count = numbers.length;
  const width = numbers.BYTES_PER_ELEMENT;
  let last = 0;
  for (let i = 0; i < count; i++) {
    let step = 0;
    for (let b = 0; b < width; b++) step |= planes[b * count + i] << (8 * b);
    numbers[i] = last + step; // goes round at the type's end, as it did when it was packed
    last = numbers[i];
  }
  return numbers;
}

// Values in columns, one after the other in each row; what was no number is NaN.
async function unpackedValues(said) {
  const width = said.columns.length;
  const values = new Float32Array(said.count * width);
  for (let k = 0; k < width; k++) {
    const { low, step, text } = said.columns[k];
    const codes = await unpackedNumbers(text, new Uint16Array(said.count));
    for (let i = 0; i < said.count; i++) {
      values[i * width + k] = codes[i] ? low + step * (codes[i] - 1) : NaN;
    }
  }
  return values;
}
