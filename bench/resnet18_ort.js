// Times the ONNX export of the ResNet-18 benchmark network with onnxruntime-node
// (bench/resnet18.sh runs it; scripts/setup_peers.sh installs the package).
//
//   node resnet18_ort.js ORT_PACKAGE_DIR MODEL.onnx INPUT_NCHW.bin THREADS RUNS [OUTPUT.bin]
//
// Prints the median milliseconds of RUNS timed runs, after 3 untimed ones, with
// THREADS intra-op threads; writes the output as raw float32 when asked.
'use strict';
const fs = require('fs');

async function main() {
  const [ortDir, model, inputPath, threads, runs, outputPath] = process.argv.slice(2);
  const ort = require(ortDir);
  const bytes = fs.readFileSync(inputPath);
  const data = new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length));
  const session = await ort.InferenceSession.create(model, {
    intraOpNumThreads: Number(threads),
    interOpNumThreads: 1,
    executionMode: 'sequential',
    graphOptimizationLevel: 'all',
  });
  const feeds = {input: new ort.Tensor('float32', data, [1, 3, 224, 224])};
  const times = [];
  let result;
  for (let i = 0; i < Number(runs) + 3; ++i) {
    const start = process.hrtime.bigint();
    result = await session.run(feeds);
    const ms = Number(process.hrtime.bigint() - start) / 1e6;
    if (i >= 3) times.push(ms);
  }
  times.sort((a, b) => a - b);
  const mid = times.length >> 1;
  const median = times.length % 2 ? times[mid] : (times[mid - 1] + times[mid]) / 2;
  console.log(median.toFixed(3));
  if (outputPath) fs.writeFileSync(outputPath, Buffer.from(result.output.data.buffer));
}

main().catch((e) => {
  console.error(e);
  process.exit(1);
});
