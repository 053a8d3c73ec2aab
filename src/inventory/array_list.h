// Grouping of the LUN list into array records by serial number.
#ifndef HIC_INVENTORY_ARRAY_LIST_H
#define HIC_INVENTORY_ARRAY_LIST_H

// Appends a record for every serial number of the LUN list the array list
// lacks, in first-seen order; never removes one. -1 when a record could
// not be allocated (the records added so far stay).
int HIC_GetArrayList();

#endif  // HIC_INVENTORY_ARRAY_LIST_H
