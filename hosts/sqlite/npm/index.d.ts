export const extension: string;
export function load(database: { loadExtension(path: string): unknown }): void;
export function vector(numbers: ArrayLike<number>): Buffer;
