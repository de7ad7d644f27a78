// Checks objects of Kubernetes, a JSON array on standard input, by the schemas of Kubernetes and of the Prometheus
// operator, and prints each mistake. The schemas check values; that every field is known is checked by the types
// that are made of them, in a TypeScript program that consists of the objects.
import { readFileSync, writeFileSync } from "node:fs";
import { spawnSync } from "node:child_process";

const operator = "monitoring.coreos.com/";

function moduleOf({ apiVersion, kind }) {
  const home = apiVersion.startsWith(operator) ? "@kubernetes-models/prometheus-operator" : "kubernetes-models";
  return `${home}/${apiVersion}/${kind}`;
}

function nameOf({ kind, metadata }) {
  return `${kind} ${metadata.name}`;
}

async function wrongValues(object) {
  const models = await import(moduleOf(object));
  try {
    new models[object.kind](object).validate();
    return [];
  } catch (error) {
    return [`${nameOf(object)}: ${error.message}`];
  }
}

function unknownFields(objects) {
  const program = objects.map((object, number) =>
    `import type { I${object.kind} as Type${number} } from "${moduleOf(object)}";\n` +
    `// ${nameOf(object)}\nexport const object${number}: Type${number} = ${JSON.stringify(object, null, 1)};\n`);
  writeFileSync("objects.ts", program.join(""));
  const options = ["--noEmit", "--strict", "--skipLibCheck", "--module", "esnext", "--moduleResolution", "bundler"];
  const checked = spawnSync("node_modules/.bin/tsc", [...options, "objects.ts"], { encoding: "utf8" });
  return checked.status === 0 ? [] : [checked.stdout + checked.stderr];
}

const objects = JSON.parse(readFileSync(0, "utf8"));
const mistakes = (await Promise.all(objects.map(wrongValues))).flat().concat(unknownFields(objects));
mistakes.forEach((mistake) => console.log(mistake));
process.exitCode = mistakes.length === 0 ? 0 : 1;
