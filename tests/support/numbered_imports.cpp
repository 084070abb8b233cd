// A library that imports from msi.dll by ordinal.

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

extern "C" __declspec(dllexport) MSIHANDLE make_record(UINT fields);

MSIHANDLE make_record(UINT fields)
{
    return MsiCreateRecord(fields);
}
