import { Modal, ModalBody, ModalHeader } from "@patternfly/react-core";

export default function DhDialog(props: { onClose: () => void }) {
  return (
    <Modal isOpen variant="medium" onClose={props.onClose} aria-labelledby="dialog-title">
      <ModalHeader title="DhDialog" labelId="dialog-title" />
      <ModalBody />
    </Modal>
  );
}
