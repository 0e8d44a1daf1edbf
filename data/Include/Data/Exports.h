#pragma once
// Entry points of libTellarData.so. Each follows the boundary convention: true on success, one
// owned reference in the result, failures as an error object in the last parameter.
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/Export.h"
#include "Data/Interfaces/IArray.h"
#include "Data/Interfaces/IDateTime.h"
#include "Data/Interfaces/IObjectList.h"
#include "Data/Interfaces/IString.h"
#include "Data/Interfaces/IVariantDictionary.h"
#include "Data/Structures.h"

TELLAR_API bool Data_CreateArray(uint32_t elementSize, uint64_t count, Data::Interfaces::IArray** ppArray,
                                 Core::IErrorCode** ppError);
TELLAR_API bool Data_CreateString(Data::Interfaces::IString** ppString, Core::IErrorCode** ppError);
TELLAR_API bool Data_CreateObjectList(Data::Interfaces::IObjectList** ppList, Core::IErrorCode** ppError);
TELLAR_API bool Data_CreateVariantDictionary(Data::Interfaces::IVariantDictionary** ppDictionary,
                                             Core::IErrorCode** ppError);
TELLAR_API bool Data_CreateCurrentDateTime(Data::Interfaces::IDateTime** ppDateTime, Core::IErrorCode** ppError);
// Accepts the ISO 8601 forms servers send: a date, a date-time with or without fraction of a
// second, in UTC ("Z"), with a numeric offset, or without zone (taken as UTC). Normalised to UTC.
TELLAR_API bool Data_CreateDateTimeFromIso8601(const char* text, Data::Interfaces::IDateTime** ppDateTime,
                                               Core::IErrorCode** ppError);
TELLAR_API bool Data_UuidToString(const Data::Structures::Uuid* uuid, Data::Interfaces::IString** ppString,
                                  Core::IErrorCode** ppError);
