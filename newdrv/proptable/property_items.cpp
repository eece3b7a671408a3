// Filling of single property items: the ranged items of the standard
// controls and the plain items of the custom set.
#include "ornix.h"

// Bytes a client reads for one custom property value.
#define ORNIX_SERIALIZED_SIZE 4

// Both members lists of a standard control: its range, then its default.
#define ORNIX_RANGE_LIST 0
#define ORNIX_DEFAULT_LIST 1
#define ORNIX_MEMBERS_LISTS 2

// Fills Item, Values, Members[0..1], Stepping and *DefaultSlot. Every record
// is written in full, so the caller need not clear them.
VOID OrnixFillRangedPropertyItem(ULONG Id, LONG Default, LONG Minimum, LONG Maximum,
                                 PKSPROPERTY_ITEM Item, PKSPROPERTY_VALUES Values,
                                 PKSPROPERTY_MEMBERSLIST Members,
                                 PKSPROPERTY_STEPPING_LONG Stepping, PLONG DefaultSlot,
                                 ULONG MinimumSize) {
    *DefaultSlot = Default;

    RtlZeroMemory(Stepping, sizeof(*Stepping));
    Stepping->SteppingDelta = 1;
    Stepping->Bounds.SignedMinimum = Minimum;
    Stepping->Bounds.SignedMaximum = Maximum;

    RtlZeroMemory(Members, ORNIX_MEMBERS_LISTS * sizeof(*Members));
    Members[ORNIX_RANGE_LIST].MembersHeader.MembersFlags = KSPROPERTY_MEMBER_RANGES;
    Members[ORNIX_RANGE_LIST].MembersHeader.MembersSize = sizeof(*Stepping);
    Members[ORNIX_RANGE_LIST].MembersHeader.MembersCount = 1;
    Members[ORNIX_RANGE_LIST].Members = Stepping;
    // The default slot holds exactly one value: a count of 1 keeps readers
    // of the list inside its four bytes.
    Members[ORNIX_DEFAULT_LIST].MembersHeader.MembersFlags = KSPROPERTY_MEMBER_VALUES;
    Members[ORNIX_DEFAULT_LIST].MembersHeader.MembersSize = sizeof(*DefaultSlot);
    Members[ORNIX_DEFAULT_LIST].MembersHeader.MembersCount = 1;
    Members[ORNIX_DEFAULT_LIST].MembersHeader.Flags = KSPROPERTY_MEMBER_FLAG_DEFAULT;
    Members[ORNIX_DEFAULT_LIST].Members = DefaultSlot;

    RtlZeroMemory(Values, sizeof(*Values));
    Values->PropTypeSet.Set = OrnixPropTypeSetGeneral;
    Values->PropTypeSet.Id = VT_I4;
    Values->MembersListCount = ORNIX_MEMBERS_LISTS;
    Values->MembersList = Members;

    RtlZeroMemory(Item, sizeof(*Item));
    Item->PropertyId = Id;
    Item->GetSupported = TRUE;
    Item->MinProperty = MinimumSize;
    Item->MinData = MinimumSize;
    Item->SetSupported = TRUE;
    Item->Values = Values;
    Item->SerializedSize = ORNIX_SERIALIZED_SIZE;
}

// A custom item: get and set both supported; its handler checks data sizes.
VOID OrnixFillPlainPropertyItem(ULONG Id, PKSPROPERTY_ITEM Item) {
    RtlZeroMemory(Item, sizeof(*Item));
    Item->PropertyId = Id;
    Item->GetSupported = TRUE;
    Item->MinProperty = sizeof(KSPROPERTY);
    Item->MinData = 0;
    Item->SetSupported = TRUE;
    Item->SerializedSize = ORNIX_SERIALIZED_SIZE;
}
