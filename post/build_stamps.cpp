// build_stamps.cpp: what this image is, for tools that search the binary. No code reads them.
#define STAMP_SIZE 200

extern "C" {
extern const char tgt_data[STAMP_SIZE];
extern const char tree_loc[STAMP_SIZE];
extern const char image_name[STAMP_SIZE];

[[gnu::used]] const char tgt_data[STAMP_SIZE] = "@@TGT@@" POST_STAMP_TGT;
[[gnu::used]] const char tree_loc[STAMP_SIZE] = "@@TREE@@" POST_STAMP_TREE;
[[gnu::used]] const char image_name[STAMP_SIZE] = "@@IMAGE@@" POST_STAMP_IMAGE;
}
