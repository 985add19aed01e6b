/* The function table that veltramultidimarrayforpython exports as the capsule
 * "veltramultidimarrayforpython._capi". An "array implementation handle" is a foundation::veltradata::detail::ArrayImpl*:
 * whoever receives one owns one hold on it (foundation::veltradata::Array adopts it). */
#ifndef VELTRA_CAPI_H
#define VELTRA_CAPI_H

#include <Python.h>
#include <stdint.h>

#define VELTRA_CAPI_CAPSULE_NAME "veltramultidimarrayforpython._capi"

/* The version of the table's contract. Changing what an entry takes, does or returns, or moving one, makes a
 * new version; entries added at the end keep it, and a reader that needs them checks table_size. */
#define VELTRA_CAPI_VERSION 1

typedef struct VeltraArrayCapi {
    /* sizeof(VeltraArrayCapi) where the table was filled, and VELTRA_CAPI_VERSION there: a reader checks both
     * before it calls an entry. (Tables from before this header began with entry 0.) */
    uint32_t table_size;
    uint32_t version;
    /* 0: a new package object of the handle's kind holding the array (no copy). Adopts the caller's hold:
     *    the caller retains first. Null with a Python error on failure (the hold is then released). */
    PyObject* (*wrap_array)(void* impl_handle);
    /* 1: an implementation handle for `obj` of the requested ArrayType: a package object's own array
     *    (shared; converted only when its kind differs), or, for a buffer handle from entry 2, one reordering
     *    copy into a new column-major array. `owner` is the object whose lifetime covers `obj`. Null with a
     *    Python error on failure. */
    void* (*get_array)(PyObject* obj, PyObject* owner, uint32_t array_type);
    /* 2: a buffer handle (a Python object owning the Py_buffer) and the ArrayType of its format in *array_type.
     *    Null with a Python error (TypeError naming the format for formats that cannot be carried). */
    PyObject* (*acquire_buffer)(PyObject* obj, uint32_t* array_type);
    /* 3: releases a buffer handle from entry 2. */
    void (*release_buffer)(PyObject* buffer_handle);
    /* 4: non-zero when `obj` can be read as a buffer. Never leaves a Python error set. */
    int (*is_buffer)(PyObject* obj);
    /* 5: the bytes entry 1 would copy out of a buffer handle from entry 2 (elements times item size,
     *    UINT64_MAX when that does not fit), so that a caller can refuse before anything is allocated; 0 for
     *    anything that is not a held buffer handle. Never fails. */
    uint64_t (*buffer_bytes)(PyObject* buffer_handle);
    /* 6: like entry 1 on a buffer handle in its own kind, without the copy: the new array borrows the
     *    handle's buffer, which moves into it (entry 3 is still due for the handle). Only for an array that
     *    lives no longer than the call using it, while the buffer's elements stay as they are; it is written
     *    from the source memory (reordered to column-major on the way). Null without a Python error when the
     *    buffer cannot be borrowed (logical or byte-swapped elements): entry 1 then copies. Null with a
     *    Python error on failure. */
    void* (*borrow_array)(PyObject* buffer_handle);
} VeltraArrayCapi;

#endif
