/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/version.h - which kelmtrova these headers belong to, by semantic versioning: programs built with one minor
 * version run with every later one of the same major version. The built library carries its version as an ELF note
 * (readelf -n), since it exports the interface's names only.
 */
#ifndef KELMTROVA_VERSION_H
#define KELMTROVA_VERSION_H

#define KELMTROVA_VERSION_MAJOR 1
#define KELMTROVA_VERSION_MINOR 0
#define KELMTROVA_VERSION_PATCH 0

/* One number to compare, 0xMMmmpp: #if KELMTROVA_VERSION >= 0x010200. */
#define KELMTROVA_VERSION (KELMTROVA_VERSION_MAJOR << 16 | KELMTROVA_VERSION_MINOR << 8 | KELMTROVA_VERSION_PATCH)

#endif
