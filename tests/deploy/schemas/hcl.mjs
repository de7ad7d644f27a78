// Reads HCL on standard input and prints it as JSON. Fails on a mistake in the syntax.
import { readFileSync } from "node:fs";
import hcl from "@cdktf/hcl2json";

console.log(JSON.stringify(await hcl.parse("standard input", readFileSync(0, "utf8"))));
