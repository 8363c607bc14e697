// SPDX-License-Identifier: MIT
// The object store: objects of a class, named, with text attributes.
//
// Every operation returns a negative value on failure; callers judge by the sign alone. Class, object name and
// attribute names are texts with NUL. A get copies each value with its NUL into the caller's buffer; it is told no
// sizes, so a value must fit by definition. The buffer of an attribute that has no value is left as it was.
// The forms whose names end in V take, after the count, first all names and then all values or buffers.
#pragma once

extern "C" {

typedef void* T_KVR_OBJ_DB_HANDLE; ///< the object store of a queue manager

/// Creates an object; fails when it exists. `iFlags` is 0.
int KVR_ObjAdd(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals,
               int iFlags);
/// Reads attributes; fails when the object does not exist.
int KVR_ObjGetAttr(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsBufs);
int KVR_ObjGetAttrV(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, ...);
/// Replaces the values of attributes of an existing object.
int KVR_ObjSetAttr(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals);
int KVR_ObjSetAttrV(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, ...);
}
